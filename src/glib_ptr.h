// Owners for GLib's and GIO's objects. A borrowed pointer is never wrapped; a reference is taken
// explicitly with g_object_ref before it is.
#pragma once

#include "handle.h"

#include <gio/gio.h>

template <typename T> using gobject_ptr = std::unique_ptr<T, deleter<g_object_unref>>;
using gchar_ptr = std::unique_ptr<gchar, deleter<g_free>>;
using gerror_ptr = std::unique_ptr<GError, deleter<g_error_free>>;
using gsource_ptr = std::unique_ptr<GSource, deleter<g_source_unref>>;
using giochannel_ptr = std::unique_ptr<GIOChannel, deleter<g_io_channel_unref>>;
using ghashtable_ptr = std::unique_ptr<GHashTable, deleter<g_hash_table_unref>>;

// Receives a GError from a C call: function(..., error_out(error)).
class error_out {
  public:
    explicit error_out(gerror_ptr &target) noexcept : target_(target) {}
    error_out(const error_out &) = delete;
    error_out &operator=(const error_out &) = delete;
    ~error_out() { target_.reset(error_); }
    operator GError **() noexcept { return &error_; } // NOLINT: stands for the C argument

  private:
    gerror_ptr &target_;
    GError *error_ = nullptr;
};
