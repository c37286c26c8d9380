// Byte buffers as D-Bus values of type "(ay)" and back, with no value per byte in between.
// Internal.
#ifndef PELMAR_BYTE_VARIANT_H
#define PELMAR_BYTE_VARIANT_H

#include <glib.h>

#include <memory>
#include <utility>
#include <vector>

namespace pelmar_bytes {

/// Floating "(ay)" over the bytes, which live as long as `owner`.
template <typename Owner>
GVariant* Over(const std::vector<char>& bytes, std::unique_ptr<Owner> owner)
{
    const auto free_owner = [](gpointer held) { delete static_cast<Owner*>(held); };
    GVariant* array = g_variant_new_from_data(G_VARIANT_TYPE_BYTESTRING, bytes.data(), bytes.size(),
                                              TRUE, free_owner, owner.release());
    return g_variant_new_tuple(&array, 1);
}

/// Floating "(ay)" over the buffer itself: no byte is copied.
inline GVariant* Take(std::vector<char>&& data)
{
    auto owned = std::make_unique<std::vector<char>>(std::move(data));
    const std::vector<char>& bytes = *owned;
    return Over(bytes, std::move(owned));
}

/// The same over a buffer that others have, too.
inline GVariant* Share(std::shared_ptr<const std::vector<char>> data)
{
    using Held = std::shared_ptr<const std::vector<char>>;
    const std::vector<char>& bytes = *data;
    return Over(bytes, std::make_unique<Held>(std::move(data)));
}

/// Floating "(ay)" over one copy of the buffer.
inline GVariant* Copy(const std::vector<char>& data)
{
    return Take(std::vector<char>(data));
}

/// The bytes of an "(ay)".
inline std::vector<char> From(GVariant* tuple)
{
    GVariant* array = g_variant_get_child_value(tuple, 0);
    gsize size = 0;
    const auto* bytes =
        static_cast<const char*>(g_variant_get_fixed_array(array, &size, sizeof(char)));
    std::vector<char> data(bytes, bytes + size);
    g_variant_unref(array);
    return data;
}

}  // namespace pelmar_bytes

#endif
