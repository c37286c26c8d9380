/// @file
/// The bytes of a message as bare GDBus takes and gives them: "(ay)" in one piece.
#ifndef PELMAR_BENCH_GDBUS_BYTES_H
#define PELMAR_BENCH_GDBUS_BYTES_H

#include <gio/gio.h>

#include <utility>

#include "server.h"

namespace gdbus {

using server::Bytes;

/// Floating; the buffer goes with it.
inline GVariant* HandOver(Bytes&& data)
{
    auto* owned = new Bytes(std::move(data));
    GVariant* array = g_variant_new_from_data(
        G_VARIANT_TYPE_BYTESTRING, owned->data(), owned->size(), TRUE,
        [](gpointer buffer) { delete static_cast<Bytes*>(buffer); }, owned);
    return g_variant_new_tuple(&array, 1);
}

inline Bytes Read(GVariant* parameters)
{
    GVariant* array = g_variant_get_child_value(parameters, 0);
    gsize size = 0;
    const auto* bytes = static_cast<const char*>(g_variant_get_fixed_array(array, &size, 1));
    Bytes data(bytes, bytes + size);
    g_variant_unref(array);
    return data;
}

}  // namespace gdbus

#endif
