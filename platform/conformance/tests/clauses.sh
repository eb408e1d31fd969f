#!/bin/sh
# The check of clauses against tests passes, and notices what it is there for.
# usage: clauses.sh CHECK-CLAUSES HEADER-DIRECTORY TEST-DIRECTORY
. "$(dirname "$0")/common.sh"
"$1" "$2" "$3"

check=$1
try() {
  judge "$1" "$scratch/headers" "$scratch/tests"
  rm -r "$scratch/headers" "$scratch/tests"
}
copy() {
  mkdir "$scratch/headers" "$scratch/tests"
  cp "$2"/*.h "$scratch/headers"
  cp "$3"/*.cpp "$scratch/tests"
}

copy "$@"
sed -i 's/^ \* POW-01 .*/&\n * POW-99  One more sentence./' "$scratch/headers/DevicePower.h"
try 1
shows 'clause without a test: POW-99'

copy "$@"
sed -i 's/, SET_07_/, SET_77_/' "$scratch/tests/SettingsCheck.cpp"
try 1
shows 'clause without a test: SET-07'
shows 'test of no known clause: SET-77'

copy "$@"
echo 'TEST(Power, SomethingElse) {}' >>"$scratch/tests/PowerCheck.cpp"
try 1
shows 'test of no known clause: TEST\(Power, SomethingElse\)'

copy "$@"
sed -i 's/^ \* LOG-02 /* LOG-01 /; s/^\* LOG/ * LOG/' "$scratch/headers/Log.h"
try 1
shows 'clause id used twice: LOG-01'
