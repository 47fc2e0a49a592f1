#pragma once
#include <cstdint>
#include <type_traits>

namespace Quelin {

/// A bit set over an enumeration whose enumerators are single bits.
template <typename E> class Flags {
public:
    using Underlying = std::make_unsigned_t<std::underlying_type_t<E>>;

    constexpr Flags() = default;
    constexpr Flags(E bit) : mBits(Underlying(bit)) {}
    static constexpr Flags fromBits(Underlying bits) {
        Flags f;
        f.mBits = bits;
        return f;
    }

    constexpr bool has(E bit) const { return (mBits & Underlying(bit)) != 0; }
    constexpr bool any() const { return mBits != 0; }
    constexpr Underlying bits() const { return mBits; }
    constexpr Flags& set(E bit, bool on = true) {
        mBits = on ? (mBits | Underlying(bit)) : (mBits & ~Underlying(bit));
        return *this;
    }
    constexpr Flags operator|(Flags o) const { return fromBits(mBits | o.mBits); }
    constexpr Flags operator&(Flags o) const { return fromBits(mBits & o.mBits); }
    constexpr Flags& operator|=(Flags o) { mBits |= o.mBits; return *this; }
    constexpr bool operator==(Flags const&) const = default;

private:
    Underlying mBits = 0;
};

} // namespace Quelin
