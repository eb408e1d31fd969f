#ifndef ONDARO_SRC_LIVEOBJECTS_H
#define ONDARO_SRC_LIVEOBJECTS_H

#include <atomic>

/// The objects of a type that there are. Callbacks from C have an object's address as their user
/// data and may come when it is gone: asked here, without touching it.
///
/// No lock: an entry is reused, never released, so there are as many as there were objects at once.
template <typename TObject>
class CLiveObjects {
 public:
  static void Add(const void* pObject) {
    if (!_Exchange(nullptr, pObject)) {
      auto* const entry = new SEntry{{pObject}, s_pFirst.load()};
      while (!s_pFirst.compare_exchange_weak(entry->pNext, entry)) {
      }
    }
  }
  static void Remove(const void* pObject) noexcept { _Exchange(pObject, nullptr); }
  static bool Has(const void* pObject) noexcept { return _Exchange(pObject, pObject); }

 private:
  struct SEntry {
    std::atomic<const void*> pObject;
    SEntry* pNext;
  };

  /// In the first entry that holds `before`; false when there is none.
  static bool _Exchange(const void* before, const void* after) noexcept {
    for (SEntry* entry = s_pFirst.load(); entry != nullptr; entry = entry->pNext) {
      const void* expected = before;
      if (entry->pObject.compare_exchange_strong(expected, after)) {
        return true;
      }
    }
    return false;
  }

  static inline std::atomic<SEntry*> s_pFirst{nullptr};
};

#endif
