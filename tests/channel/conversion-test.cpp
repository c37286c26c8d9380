// The conversions between bytes and "(ay)", compared with the way that goes byte by byte.

#include <algorithm>

#include "channel-test.h"

namespace {

// What the conversions have to come to, written down as plainly as GVariant allows.
GVariant* ValueByteByByte(const Bytes& data)
{
    GVariantBuilder* builder = g_variant_builder_new(G_VARIANT_TYPE("ay"));
    for (const char byte : data)
        g_variant_builder_add(builder, "y", static_cast<guchar>(byte));
    GVariant* value = g_variant_new("(ay)", builder);
    g_variant_builder_unref(builder);
    return value;
}

Bytes BytesOneByOne(GVariant* value)
{
    Bytes data;
    GVariantIter* iter = nullptr;
    guchar byte = 0;
    g_variant_get(value, "(ay)", &iter);
    while (g_variant_iter_loop(iter, "y", &byte))
        data.push_back(static_cast<char>(byte));
    g_variant_iter_free(iter);
    return data;
}

// Every byte value, in an order that does not repeat with the size's own period.
Bytes Sample(std::size_t size)
{
    Bytes data(size);
    for (std::size_t i = 0; i < size; ++i)
        data[i] = static_cast<char>((i * 167 + i / 256) % 256);
    return data;
}

class AConversion : public testing::TestWithParam<std::size_t> {
protected:
    Bytes m_data = Sample(GetParam());
};

TEST_P(AConversion, ToAValueIsTheSameAsByteByByte)
{
    GVariant* value = PelmarDbusLocal::ConvertBytes(m_data);
    EXPECT_TRUE(g_variant_is_floating(value));
    g_variant_ref_sink(value);
    GVariant* reference = g_variant_ref_sink(ValueByteByByte(m_data));
    EXPECT_STREQ("(ay)", g_variant_get_type_string(value));
    EXPECT_TRUE(g_variant_is_normal_form(value));
    EXPECT_TRUE(g_variant_equal(reference, value));
    EXPECT_EQ(Sample(GetParam()), m_data);
    g_variant_unref(reference);
    g_variant_unref(value);
}

TEST_P(AConversion, OfAValueIsTheSameAsByteByByte)
{
    GVariant* value = g_variant_ref_sink(ValueByteByByte(m_data));
    EXPECT_EQ(m_data, BytesOneByOne(value));
    EXPECT_EQ(m_data, PelmarDbusLocal::ConvertBytes(value));
    g_variant_unref(value);
}

TEST_P(AConversion, ThereAndBackIsTheSame)
{
    GVariant* value = g_variant_ref_sink(PelmarDbusLocal::ConvertBytes(m_data));
    EXPECT_EQ(m_data, PelmarDbusLocal::ConvertBytes(value));
    g_variant_unref(value);
}

TEST_P(AConversion, OutlivesTheBufferThatItWasMadeFrom)
{
    GVariant* value = nullptr;
    {
        Bytes buffer = m_data;
        value = g_variant_ref_sink(PelmarDbusLocal::ConvertBytes(buffer));
        std::fill(buffer.begin(), buffer.end(), 'x');
    }
    EXPECT_EQ(m_data, BytesOneByOne(value));
    g_variant_unref(value);
}

// As GIO hands it over: a part of a message, at whatever place it has there.
TEST_P(AConversion, OfAValueCutUnalignedOutOfALargerOneIsTheSame)
{
    GVariant* value = g_variant_ref_sink(ValueByteByByte(m_data));
    for (std::size_t offset = 1; offset < 9; ++offset) {
        GVariantBuilder builder;
        g_variant_builder_init(&builder, G_VARIANT_TYPE_TUPLE);
        for (std::size_t i = 0; i < offset; ++i)
            g_variant_builder_add(&builder, "y", 0xee);
        g_variant_builder_add_value(&builder, value);
        GVariant* whole = g_variant_ref_sink(g_variant_builder_end(&builder));
        g_variant_get_data(whole);  // puts it into one piece, so that the part is a slice of it
        GVariant* part = g_variant_get_child_value(whole, offset);
        EXPECT_EQ(m_data, PelmarDbusLocal::ConvertBytes(part)) << "at offset " << offset;
        g_variant_unref(part);
        g_variant_unref(whole);
    }
    g_variant_unref(value);
}

INSTANTIATE_TEST_SUITE_P(Sizes, AConversion,
                         testing::Values(0, 1, 2, 7, 8, 255, 256, 257, 4096, 65535, 65536, 65537,
                                         1024 * 1024));

TEST(AConversionOfOneByte, IsTheSameForEveryValue)
{
    for (int value = 0; value < 256; ++value) {
        Bytes data{static_cast<char>(value)};
        GVariant* converted = g_variant_ref_sink(PelmarDbusLocal::ConvertBytes(data));
        GVariant* reference = g_variant_ref_sink(ValueByteByByte(data));
        EXPECT_TRUE(g_variant_equal(reference, converted)) << value;
        EXPECT_EQ(data, PelmarDbusLocal::ConvertBytes(reference)) << value;
        g_variant_unref(reference);
        g_variant_unref(converted);
    }
}

}  // namespace
