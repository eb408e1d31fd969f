#ifndef ONDARO_CTL_GLIB_OWNER_H
#define ONDARO_CTL_GLIB_OWNER_H

#include <glib-object.h>

#include <memory>

namespace ondaro::ctl {

template <class T, void (*Release)(T*)>
struct GLibRelease {
  void operator()(T* owned) const noexcept { Release(owned); }
};

/// Owns what GLib handed out, released with the function named.
template <class T, void (*Release)(T*)>
using GLibOwner = std::unique_ptr<T, GLibRelease<T, Release>>;

struct GLibFree {
  void operator()(void* memory) const noexcept { g_free(memory); }
};
struct GObjectRelease {
  void operator()(gpointer object) const noexcept { g_object_unref(object); }
};
using GLibText = std::unique_ptr<char, GLibFree>;
using GLibError = GLibOwner<GError, g_error_free>;

}  // namespace ondaro::ctl

#endif
