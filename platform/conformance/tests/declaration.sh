#!/bin/sh
# What a port declares is held against it: an absence that is none, a value that is another, a
# mandatory thing not declared, a key that does not exist.
# usage: declaration.sh CHECK DECLARATION     of a port that has everything
. "$(dirname "$0")/common.sh"
check=$1

grep -v '^decryption-module' "$2" >"$scratch/no-module.conf"
judge 1 "$scratch/no-module.conf" --only CDM-01 --only CDM-03
shows '^CDM-01 +FAILED'
shows 'false declaration: there is a decryption module'
shows '^CDM-03 +absent'

grep -v '^device-keys' "$2" >"$scratch/no-keys.conf"
judge 1 "$scratch/no-keys.conf" --only CDM-06
shows 'false declaration: the module implements IWVCDM'

sed 's/^settings.shared = yes/settings.shared = no/' "$2" >"$scratch/not-shared.conf"
judge 1 "$scratch/not-shared.conf" --only SET-24
shows 'false declaration: processes share the store'

grep -v '^feature.set' "$2" >"$scratch/wrong-value.conf"
echo 'feature.value = 12' >>"$scratch/wrong-value.conf"
judge 1 "$scratch/wrong-value.conf" --only SYS-01
shows '^SYS-01 +FAILED'

grep -v '^log.read' "$2" >"$scratch/no-log.conf"
judge 1 "$scratch/no-log.conf" --only LOG-01
shows "^LOG-01 +UNDECLARED"
shows "'log.read' is not declared"
shows 'not conformant'

# A fixed set: what it has is declared, and read only.
grep -vE '^power' "$2" >"$scratch/fixed.conf"
echo 'power.state = 0' >>"$scratch/fixed.conf"
judge 0 "$scratch/fixed.conf" --only POW-01 --only POW-02
shows '^POW-02 +absent'

for line in 'log.raed = cat log' 'decryption-module = maybe' 'power.set = write it' 'port = twice'; do
  { cat "$2"; echo "$line"; } >"$scratch/mistaken.conf"
  judge 2 "$scratch/mistaken.conf"
  shows "mistaken.conf:[0-9]+: "
done
