#pragma once

#include <glib-object.h>

#include <memory>

namespace kelvaron::host {

// A GObject reference that is given back when it goes out of scope.
struct GObjectUnref {
  void operator()(gpointer object) const {
    if (object) g_object_unref(object);
  }
};
template <class T>
using Owned = std::unique_ptr<T, GObjectUnref>;

}  // namespace kelvaron::host
