// A route table to measure with, and the addresses to look up in it.
//
// The lengths are in the shares of a full table of the Internet's routes. Half of the prefixes lie inside a
// shorter one that was drawn before, the others anywhere in the blocks that are given out. Routes are in
// random order; the next hop of route i is i + 1, and 0 stands for none. Half of the addresses lie inside a
// route, the others anywhere in the blocks.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <random>
#include <set>
#include <span>
#include <utility>
#include <vector>

namespace qel_bench {

struct LengthShare {
    unsigned length;
    double per_cent;
};

// Shortest first: a longer prefix is drawn into shorter ones.
inline constexpr LengthShare kShares4[] = {{8, 0.002}, {9, 0.002}, {10, 0.005}, {11, 0.01}, {12, 0.03},
                                           {13, 0.06}, {14, 0.12}, {15, 0.2},   {16, 1.4},  {17, 0.9},
                                           {18, 1.5},  {19, 2.7},  {20, 4.5},   {21, 5.4},  {22, 11.5},
                                           {23, 10.3}, {24, 61},   {32, 0.4}};
inline constexpr LengthShare kShares6[] = {{20, 0.02}, {24, 0.05}, {28, 0.6}, {29, 4}, {30, 0.8}, {32, 14},
                                           {33, 1.5},  {34, 1.2},  {36, 5},   {38, 1}, {40, 9},   {42, 2.5},
                                           {44, 10},   {45, 0.4},  {46, 2.5}, {47, 2}, {48, 45},  {64, 0.4}};
// The first 16 bits of what is given out: blocks from 'from' up to, not including, 'end'.
struct Block {
    std::uint16_t from;
    std::uint16_t end;
};
inline constexpr Block kBlocks4[] = {{0x0100, 0xe000}};
inline constexpr Block kBlocks6[] = {{0x2001, 0x2002}, {0x2400, 0x2410}, {0x2600, 0x2610},
                                     {0x2800, 0x2810}, {0x2a00, 0x2a10}, {0x2c00, 0x2c10}};

template <std::size_t Size>
struct PrefixLoad {
    using Address = std::array<std::uint8_t, Size>;
    struct Route {
        Address net;
        std::uint8_t length;
        auto operator<=>(const Route&) const = default;
    };

    std::vector<Route> routes;
    std::vector<Address> asked;
    std::mt19937_64 random{1};

    PrefixLoad(std::span<const LengthShare> shares, std::span<const Block> blocks, std::size_t count,
               std::size_t asked_count) {
        std::set<Route> drawn;
        for (LengthShare share : shares) {
            const std::size_t shorter = routes.size();
            const auto wanted = static_cast<std::size_t>(share.per_cent / 100 * static_cast<double>(count));
            while (routes.size() < shorter + wanted) {
                const bool inside = shorter > 0 && random() % 2 == 0;
                Address net = inside ? inside_of(routes[random() % shorter]) : anywhere(blocks);
                keep_first(net, share.length);
                Route route{net, static_cast<std::uint8_t>(share.length)};
                if (drawn.insert(route).second) routes.push_back(route);
            }
        }
        std::shuffle(routes.begin(), routes.end(), random);
        for (std::size_t i = 0; i < asked_count; ++i)
            asked.push_back(i % 2 == 0 ? inside_of(routes[random() % routes.size()]) : anywhere(blocks));
        std::shuffle(asked.begin(), asked.end(), random);
    }

    static bool bit(const Address& address, unsigned index) {
        return (address[index / 8] >> (7 - index % 8) & 1) != 0;
    }
    // The first 32 bits as a number.
    static std::uint32_t number(const Address& address) {
        return std::uint32_t{address[0]} << 24 | std::uint32_t{address[1]} << 16 |
               std::uint32_t{address[2]} << 8 | address[3];
    }

  private:
    static void keep_first(Address& address, unsigned length) {
        for (unsigned index = length; index < 8 * Size; ++index)
            address[index / 8] &= static_cast<std::uint8_t>(~(0x80 >> index % 8));
    }
    Address anything() {
        Address address;
        std::ranges::generate(address, [&] { return static_cast<std::uint8_t>(random()); });
        return address;
    }
    Address anywhere(std::span<const Block> blocks) {
        Address address = anything();
        const Block block = blocks[random() % blocks.size()];
        const auto first = static_cast<std::uint16_t>(block.from + random() % (block.end - block.from));
        address[0] = static_cast<std::uint8_t>(first >> 8);
        address[1] = static_cast<std::uint8_t>(first);
        return address;
    }
    Address inside_of(const Route& route) {
        Address address = anything();
        for (unsigned index = 0; index < route.length; ++index)
            if (bit(address, index) != bit(route.net, index))
                address[index / 8] ^= static_cast<std::uint8_t>(0x80 >> index % 8);
        return address;
    }
};

using Load4 = PrefixLoad<4>;
using Load6 = PrefixLoad<16>;

}  // namespace qel_bench
