// A packet beside what it should be: one operation after the other on both, by numbers from dice or from a
// fuzzer, and a comparison after each.
#pragma once

#include <qel/pak.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <utility>
#include <vector>

namespace qel_test {

constexpr cerrno kPakInvalid = 0xa0000016, kPakNoRoom = 0xa000000c;

// RFC 1071 by the book: words in network order, the sum as it lies in memory.
inline std::uint16_t sum_by_the_book(const std::uint8_t* data, std::size_t length) {
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < length; ++i) sum += i % 2 == 0 ? std::uint64_t{data[i]} << 8 : data[i];
    while (sum >> 16 != 0) sum = (sum & 0xffff) + (sum >> 16);
    const std::uint8_t bytes[2] = {static_cast<std::uint8_t>(sum >> 8), static_cast<std::uint8_t>(sum)};
    std::uint16_t in_memory = 0;
    std::memcpy(&in_memory, bytes, sizeof(in_memory));
    return in_memory;
}

// 'Dice' is called with n and gives a number below n.
template <class Dice>
class PakModel {
  public:
    explicit PakModel(Dice& dice) : dice_(dice) { make(); }
    PakModel(const PakModel&) = delete;
    PakModel& operator=(const PakModel&) = delete;
    ~PakModel() { qel_pak_return_buffer(&pak_); }

    // Does one operation. False if packet and model don't agree.
    bool step() {
        switch (dice_(14)) {
        case 0:
            return resize(qel_pak_add_head(pak_, amount_), amount_ <= begin_, kPakNoRoom, -1, 1) && agree();
        case 1:
            return resize(qel_pak_trim_head(pak_, amount_), amount_ <= size_, kPakInvalid, 1, -1) && agree();
        case 2:
            return resize(qel_pak_add_tail(pak_, amount_), amount_ <= bytes_.size() - begin_ - size_,
                          kPakNoRoom, 0, 1) &&
                   agree();
        case 3:
            return resize(qel_pak_trim_tail(pak_, amount_), amount_ <= size_, kPakInvalid, 0, -1) && agree();
        case 4:
            return set_offset() && agree();
        case 5:
            return adjust_offset() && agree();
        case 6:
            return write() && agree();
        case 7:
            return read();
        case 8:
            return write_pairs() && agree();
        case 9:
            return read_pairs();
        case 10:
            return put() && agree();
        case 11:
            return get();
        case 12:
            return checksum();
        default:
            return replace() && agree();
        }
    }

  private:
    static constexpr std::size_t kHeadRoom = 96, kLargest = 300;

    void make() {
        size_ = 1 + dice_(kLargest);
        if (qel_pak_alloc(size_, &pak_) != 0) std::abort();
        bytes_.assign(kHeadRoom + size_, 0);
        places_.fill(begin_ = kHeadRoom);
    }

    // Small amounts are common; some are far off. Used by the operation that follows.
    std::size_t next_amount() {
        const std::size_t kind = dice_(16);
        if (kind == 0) return ~std::size_t{0} - dice_(400);
        return kind < 12 ? dice_(40) : dice_(500);
    }
    // A name that is valid as a rule.
    std::uint32_t next_name() { return static_cast<std::uint32_t>(dice_(32) == 0 ? dice_(1000) : dice_(4)); }

    // What lies behind a position: where in 'bytes_', and how much; nothing outside.
    struct Part {
        std::size_t at = 0, room = 0;
    };
    Part find(std::uint32_t name, std::size_t position) const {
        if (name > 3) return {};
        const std::size_t place = name == 0 ? begin_ : places_[name - 1];
        const std::size_t behind = begin_ + size_ - place;
        return position < behind ? Part{place + position, behind - position} : Part{};
    }

    bool resize(cerrno result, bool possible, cerrno otherwise, int begin_step, int size_step) {
        const std::size_t amount = std::exchange(amount_, next_amount());
        if (result != (possible ? 0 : otherwise)) return false;
        if (!possible) return true;
        begin_ += static_cast<std::size_t>(begin_step) * amount;
        size_ += static_cast<std::size_t>(size_step) * amount;
        if (size_step > 0) return true;
        for (std::size_t& place : places_)
            if (place < begin_ || (begin_step == 0 && place >= begin_ + size_)) place = begin_;
        return true;
    }

    bool set_offset() {
        const std::uint32_t name = next_name();
        const std::size_t position = next_amount();
        const bool possible = name >= 1 && name <= 3 && position < size_;
        if (possible) places_[name - 1] = begin_ + position;
        return qel_pak_set_offset(pak_, name, position) == (possible ? 0 : kPakInvalid);
    }

    bool adjust_offset() {
        const std::uint32_t name = next_name();
        auto distance = static_cast<std::int64_t>(next_amount());
        if (dice_(2) == 0) distance = distance == INT64_MIN ? distance : -distance;
        bool possible = name >= 1 && name <= 3 && distance > -100000 && distance < 100000;
        if (possible) {
            const std::int64_t position = static_cast<std::int64_t>(places_[name - 1] - begin_) + distance;
            possible = position >= 0 && position < static_cast<std::int64_t>(size_);
            if (possible) places_[name - 1] = begin_ + static_cast<std::size_t>(position);
        }
        return qel_pak_adjust_offset(pak_, name, distance) == (possible ? 0 : kPakInvalid);
    }

    // Fresh bytes to write, or a place to read to.
    std::vector<std::uint8_t> fresh(std::size_t length) {
        std::vector<std::uint8_t> bytes(length);
        for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(++filler_ * 37);
        return bytes;
    }

    bool write() {
        const std::uint32_t name = next_name();
        const std::size_t position = next_amount();
        const auto bytes = fresh(1 + dice_(500));
        const Part part = find(name, position);
        std::size_t written = 77777;
        const cerrno result = qel_pak_write(pak_, name, position, bytes.data(), bytes.size(), &written);
        if (part.room == 0) return result == kPakInvalid && written == 77777;
        const std::size_t expected = std::min(part.room, bytes.size());
        std::copy_n(bytes.begin(), expected, bytes_.begin() + static_cast<std::ptrdiff_t>(part.at));
        return result == 0 && written == expected;
    }

    bool read() {
        const std::uint32_t name = next_name();
        const std::size_t position = next_amount();
        std::vector<std::uint8_t> bytes(1 + dice_(500));
        const Part part = find(name, position);
        std::size_t count = 77777;
        const cerrno result = qel_pak_read(pak_, name, position, bytes.data(), bytes.size(), &count);
        if (part.room == 0) return result == kPakInvalid && count == 77777;
        return result == 0 && count == std::min(part.room, bytes.size()) &&
               std::memcmp(bytes.data(), bytes_.data() + part.at, count) == 0;
    }

    // Pairs over 'bytes', some empty; where 'broken' says so, the base of one with a length is missing.
    struct Vector {
        std::vector<iovec> pairs;
        std::size_t before_broken = ~std::size_t{0};
    };
    Vector cut(std::vector<std::uint8_t>& bytes) {
        Vector vector;
        std::size_t at = 0;
        while (at < bytes.size()) {
            const std::size_t length = dice_(8) == 7 ? 0 : std::min(bytes.size() - at, 1 + dice_(60));
            vector.pairs.push_back({length == 0 ? nullptr : bytes.data() + at, length});
            at += length;
        }
        if (dice_(8) != 0) return vector;
        auto broken = std::ranges::find_if(vector.pairs, [](const iovec& pair) { return pair.iov_len != 0; });
        broken += static_cast<std::ptrdiff_t>(dice_(2)) * (broken + 1 != vector.pairs.end());
        if (broken->iov_len == 0) return vector;
        broken->iov_base = nullptr;
        vector.before_broken =
            std::accumulate(vector.pairs.begin(), broken, std::size_t{0},
                            [](std::size_t sum, const iovec& pair) { return sum + pair.iov_len; });
        return vector;
    }

    bool write_pairs() {
        const std::uint32_t name = next_name();
        const std::size_t position = next_amount();
        auto bytes = fresh(1 + dice_(400));
        const Vector vector = cut(bytes);
        const Part part = find(name, position);
        const bool sums = dice_(2) == 0;
        std::size_t written = 0;
        std::uint16_t sum = 0;
        const cerrno result =
            sums ? qel_pak_writev_and_checksum(pak_, name, position, vector.pairs.data(), vector.pairs.size(),
                                               &sum, &written)
                 : qel_pak_writev(pak_, name, position, vector.pairs.data(), vector.pairs.size(), &written);
        const bool broken = vector.before_broken < part.room;
        if (result != (part.room == 0 || broken ? kPakInvalid : 0)) return false;
        const std::size_t expected = std::min({part.room, bytes.size(), vector.before_broken});
        std::copy_n(bytes.begin(), expected, bytes_.begin() + static_cast<std::ptrdiff_t>(part.at));
        return written == expected &&
               (!sums || result != 0 || sum == sum_by_the_book(bytes.data(), expected));
    }

    bool read_pairs() {
        const std::uint32_t name = next_name();
        const std::size_t position = next_amount();
        std::vector<std::uint8_t> bytes(1 + dice_(400));
        const Vector vector = cut(bytes);
        const Part part = find(name, position);
        std::size_t count = 0;
        const cerrno result =
            qel_pak_readv(pak_, name, position, vector.pairs.data(), vector.pairs.size(), &count);
        const bool broken = vector.before_broken < part.room;
        if (result != (part.room == 0 || broken ? kPakInvalid : 0)) return false;
        return count == std::min({part.room, bytes.size(), vector.before_broken}) &&
               (count == 0 || std::memcmp(bytes.data(), bytes_.data() + part.at, count) == 0);
    }

    bool put() {
        const std::uint32_t name = next_name();
        const std::size_t position = next_amount(), width = std::size_t{1} << dice_(4);
        const std::uint64_t value = (++filler_ * 0x9e3779b97f4a7c15) >> (64 - 8 * width);
        const Part part = find(name, position);
        for (std::size_t i = 0; i < std::min(width, part.room); ++i)
            bytes_[part.at + i] = static_cast<std::uint8_t>(value >> 8 * (width - 1 - i));
        const cerrno expected = part.room < width ? kPakInvalid : 0;
        switch (width) {
        case 1:
            return qel_pak_uint8_put(pak_, name, position, static_cast<std::uint8_t>(value)) == expected;
        case 2:
            return qel_pak_uint16_put(pak_, name, position, static_cast<std::uint16_t>(value)) == expected;
        case 4:
            return qel_pak_uint32_put(pak_, name, position, static_cast<std::uint32_t>(value)) == expected;
        default:
            return qel_pak_uint64_put(pak_, name, position, value) == expected;
        }
    }

    template <class Word>
    bool get_as(cerrno (*call)(const qel_pak*, std::uint32_t, std::size_t, Word*)) {
        const std::uint32_t name = next_name();
        const std::size_t position = next_amount();
        const Part part = find(name, position);
        Word value = 0, expected = 0;
        if (call(pak_, name, position, &value) != (part.room < sizeof(Word) ? kPakInvalid : 0)) return false;
        for (std::size_t i = 0; i < sizeof(Word) && part.room >= sizeof(Word); ++i)
            expected = static_cast<Word>(std::uint64_t{expected} << 8 | bytes_[part.at + i]);
        return value == expected;
    }
    bool get() {
        switch (dice_(4)) {
        case 0:
            return get_as(qel_pak_uint8_get);
        case 1:
            return get_as(qel_pak_uint16_get);
        case 2:
            return get_as(qel_pak_uint32_get);
        default:
            return get_as(qel_pak_uint64_get);
        }
    }

    bool checksum() {
        const std::uint32_t name = next_name();
        const std::size_t position = next_amount(), length = next_amount();
        const Part part = find(name, position);
        std::uint16_t sum = 12345;
        const cerrno result = qel_pak_checksum(pak_, name, position, length, &sum);
        if (part.room == 0) return result == kPakInvalid && sum == 12345;
        const bool inside = length <= part.room;
        return result == 0 && sum == (inside ? sum_by_the_book(bytes_.data() + part.at, length) : 12345);
    }

    // Goes on with a copy, or sometimes with a new packet.
    bool replace() {
        if (dice_(8) == 0) {
            if (qel_pak_return_buffer(&pak_) != 0 || pak_ != nullptr) return false;
            make();
            return true;
        }
        qel_pak* copy = nullptr;
        const cerrno result = qel_pak_duplicate(pak_, &copy);
        if (size_ == 0) return result == kPakInvalid && copy == nullptr;
        if (result != 0) return false;
        qel_pak_return_buffer(&pak_);
        pak_ = copy;
        for (std::size_t& place : places_) place = place - begin_ + kHeadRoom;
        std::vector<std::uint8_t> bytes(kHeadRoom + size_, 0);
        std::copy_n(bytes_.begin() + static_cast<std::ptrdiff_t>(begin_), size_, bytes.begin() + kHeadRoom);
        bytes_ = std::move(bytes);
        begin_ = kHeadRoom;
        return true;
    }

    bool agree() const {
        void* data = nullptr;
        std::size_t size = 0, position = 0;
        if (qel_pak_get_data_ptr_lnx(pak_, &data, &size) != 0 || size != size_) return false;
        for (std::uint32_t name = 1; name <= 3; ++name)
            if (qel_pak_get_offset(pak_, name, &position) != 0 || position != places_[name - 1] - begin_)
                return false;
        return size == 0 || std::memcmp(data, bytes_.data() + begin_, size) == 0;
    }

    Dice& dice_;
    qel_pak* pak_ = nullptr;
    std::vector<std::uint8_t> bytes_;      // head room and datagram, as far as it may grow
    std::size_t begin_ = 0, size_ = 0;     // of the datagram in 'bytes_'
    std::array<std::size_t, 3> places_{};  // of the other offsets
    std::size_t amount_ = 1;
    std::uint64_t filler_ = 0;
};

}  // namespace qel_test
