// The bulk half conversion against an independent implementation, for every
// one of the 65,536 bit patterns and on both routines.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <vector>

#include "Ferrim/SkyMap/HalfConversion.h"

#define IMATH_HALF_NO_LOOKUP_TABLE // the header's own arithmetic: no library to link
#include <Imath/half.h>

namespace {

using Converter = void (*)(void const*, float*, std::size_t);

TEST(HalfConversionTest, EveryBitPatternMatchesImathOnBothRoutines) {
    // An unaligned source in uneven pieces, so both the vector body and the
    // remainder of the hardware routine run.
    std::vector<std::byte> bytes(2 * 65536 + 1);
    for (std::uint32_t i = 0; i < 65536; ++i)
        std::memcpy(bytes.data() + 1 + 2 * i, &i, 2); // little-endian machine
    for (Converter convert : {&Quelin::convertHalvesToFloats, &Quelin::Detail::convertHalvesToFloatsPortable}) {
        std::vector<float> out(65536);
        for (std::size_t done = 0, piece = 1; done < out.size(); done += piece, piece = piece % 29 + 1)
            convert(bytes.data() + 1 + 2 * done, out.data() + done, std::min(piece, out.size() - done));
        for (std::uint32_t i = 0; i < 65536; ++i) {
            Imath::half h;
            h.setBits(std::uint16_t(i));
            auto const expected = std::bit_cast<std::uint32_t>(float(h));
            // NaNs keep sign and payload; signalling ones become quiet.
            ASSERT_EQ(std::bit_cast<std::uint32_t>(out[i]), std::isnan(float(h)) ? expected | 0x00400000u : expected)
                << std::hex << i << (convert == &Quelin::convertHalvesToFloats ? " (hardware)" : " (portable)");
        }
    }
}

} // namespace
