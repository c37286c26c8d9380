// The bytes of an "(ay)" read one by one, to compare with what takes them in one piece.
#ifndef PELMAR_FUZZ_ONE_BY_ONE_H
#define PELMAR_FUZZ_ONE_BY_ONE_H

#include <glib.h>

#include <vector>

inline std::vector<char> BytesOneByOne(GVariant* tuple)
{
    std::vector<char> bytes;
    GVariantIter* iterator = nullptr;
    g_variant_get(tuple, "(ay)", &iterator);
    guchar byte = 0;
    while (g_variant_iter_loop(iterator, "y", &byte) != FALSE)
        bytes.push_back(static_cast<char>(byte));
    g_variant_iter_free(iterator);
    return bytes;
}

#endif
