#ifndef ONDARO_TESTS_LIBRARY_ALLOCATIONS_H
#define ONDARO_TESTS_LIBRARY_ALLOCATIONS_H

/// Calls of operator new, by the library or anyone else in this process, but for those of the
/// scripted platform itself. Of this thread.
struct Allocations {
  static inline thread_local int count = 0;
  /// The one with this number in `count`, counted from 1, fails; 0 for none.
  static inline thread_local int failing = 0;
  static inline thread_local bool areLaterFailing = false;
};

#endif
