// qel trace follow: what comes into buffers, merged in order of time while it comes.
//
// A read gives what was committed in all buffers when it began, save what stands behind an entry that its
// writer hasn't finished: that comes with the next read, and may be older than what another buffer gave. So
// an entry is held for one more read: then all that is older is there, whatever the clock says.
//
// Losses show in the numbers that entries have in their buffer, without a gap. As threads commit in another
// order than they number, a gap is told when the next read hasn't closed it.
#include <algorithm>
#include <chrono>
#include <iterator>
#include <utility>
#include <vector>

#include "outlet.hpp"
#include "trace_buffer.hpp"
#include "trace_commands.hpp"
#include "trace_entries.hpp"

namespace qel_tool {
namespace {

using Clock = std::chrono::steady_clock;

// The gaps in the numbers of one buffer.
class Gaps {
  public:
    // Before the first read: the header's word tells the next number.
    explicit Gaps(std::uint32_t word) : first_(word == 0 ? 1 : word % kNumbers), next_(first_) {}
    void take(std::uint32_t sequence);
    // After the first read: what was missing until the beginning was nobody's to read.
    void begin();
    // How many numbers are missing since the read before the last one and untold. For the end of a read.
    std::uint64_t settle();

  private:
    static constexpr std::uint32_t kNumbers = 0x80000000;
    struct Gap {
        std::uint32_t from;
        std::uint32_t count;
        bool settled;  // by a read that followed that of its finding
    };

    bool close(std::uint32_t sequence);

    std::uint32_t first_;
    std::uint32_t next_;
    std::vector<Gap> open_;
};

void Gaps::begin() {
    open_.clear();
    if ((first_ - next_) % kNumbers < kNumbers / 2) next_ = first_;
}

// 0 is a number in every other lap only, so that it is missing says nothing.
void Gaps::take(std::uint32_t sequence) {
    const std::uint32_t ahead = (sequence - next_) % kNumbers;
    if (ahead >= kNumbers / 2 && close(sequence)) return;
    const bool skipped = ahead > 0 && ahead < kNumbers / 2 && (ahead > 1 || next_ != 0);
    if (skipped) open_.push_back({next_, ahead, false});
    // An older number that nobody missed comes from a buffer that began anew, as after a resize.
    next_ = (sequence + 1) % kNumbers;
}

// Takes a number out of its gap. It is one of the last, as writers are late by little.
bool Gaps::close(std::uint32_t sequence) {
    for (std::size_t i = open_.size(); i-- > 0;) {
        const Gap gap = open_[i];
        const std::uint32_t before = (sequence - gap.from) % kNumbers;
        if (before >= gap.count) continue;
        const Gap behind{(sequence + 1) % kNumbers, gap.count - before - 1, gap.settled};
        open_[i].count = before;
        if (behind.count > 0) open_.insert(open_.begin() + static_cast<std::ptrdiff_t>(i) + 1, behind);
        if (before == 0) open_.erase(open_.begin() + static_cast<std::ptrdiff_t>(i));
        return true;
    }
    return false;
}

std::uint64_t Gaps::settle() {
    std::uint64_t lost = 0;
    for (const Gap& gap : open_) lost += gap.settled ? gap.count : 0;
    std::erase_if(open_, [](const Gap& gap) { return gap.settled; });
    for (Gap& gap : open_) gap.settled = true;
    return lost;
}

std::vector<Gaps> first_gaps(const Names& names) {
    std::vector<Gaps> all;
    TraceLook look;
    for (const std::string& name : names) {
        if (int error = look.read_header(name); error != 0) give_up(name, error);
        all.emplace_back(look.header().sequence);
    }
    return all;
}

class Follower {
  public:
    Follower(const Run& run, const Names& names, const FollowOptions& options)
        : options_(options), gaps_(first_gaps(names)),
          trace_(names, 0, [this](Entry entry) { take(std::move(entry)); }), lines_(run, names) {
        keep_last(options_.last);
        for (Gaps& gaps : gaps_) gaps.begin();
        started_ = true;
    }
    Exit run();

  private:
    bool enough() const;
    void take(Entry entry);
    void keep_last(std::size_t count);
    // Entries up to the last one of the read before have all older ones beside them.
    void print_settled();
    void print_until(std::size_t end);
    void tell_losses();

    const FollowOptions& options_;
    const Clock::time_point start_ = Clock::now();
    std::vector<Entry> fresh_;  // of the latest read, in order
    std::vector<Entry> held_;   // of the reads before, in order
    std::vector<Gaps> gaps_;
    bool started_ = false;  // the first read is over
    MergedTrace trace_;
    EntryLines lines_;
    Outlet outlet_;
    std::uint64_t printed_ = 0;
    bool lost_ = false;
};

bool Follower::enough() const {
    const std::chrono::duration<double> past = Clock::now() - start_;
    return outlet_.ended() || (options_.count != 0 && printed_ >= options_.count) ||
           (options_.seconds > 0 && past.count() >= options_.seconds);
}

// Of what lies there before, which may be millions of entries, only the last are kept.
void Follower::take(Entry entry) {
    gaps_[entry.buffer].take(entry.sequence);
    fresh_.push_back(std::move(entry));
    if (!started_ && fresh_.size() / 2 > options_.last) keep_last(options_.last);
}

void Follower::keep_last(std::size_t count) {
    if (fresh_.size() > count)
        fresh_.erase(fresh_.begin(), fresh_.end() - static_cast<std::ptrdiff_t>(count));
}

void Follower::print_until(std::size_t end) {
    for (std::size_t i = 0; i < end && (options_.count == 0 || printed_ < options_.count); ++i, ++printed_) {
        lines_.append(outlet_.text(), held_[i]);
        lost_ |= !held_[i].formatted();
    }
    held_.erase(held_.begin(), held_.begin() + static_cast<std::ptrdiff_t>(end));
}

void Follower::print_settled() {
    auto older = [](const Entry& a, const Entry& b) { return a.order() < b.order(); };
    const auto old_count = static_cast<std::ptrdiff_t>(held_.size());
    const Entry last = held_.empty() ? Entry{} : held_.back();
    held_.insert(held_.end(), std::make_move_iterator(fresh_.begin()), std::make_move_iterator(fresh_.end()));
    fresh_.clear();
    std::inplace_merge(held_.begin(), held_.begin() + old_count, held_.end(), older);
    auto end = std::upper_bound(held_.begin(), held_.end(), last, older);
    print_until(static_cast<std::size_t>(end - held_.begin()));
}

void Follower::tell_losses() {
    for (std::size_t buffer = 0; buffer < gaps_.size(); ++buffer) {
        const std::uint64_t lost = gaps_[buffer].settle();
        if (lost == 0) continue;
        lines_.append_lost(outlet_.text(), buffer, lost);
        lost_ = true;
    }
}

Exit Follower::run() {
    while (true) {
        print_settled();
        tell_losses();
        outlet_.flush();
        if (enough()) break;
        outlet_.wait(std::chrono::duration<double>{options_.interval});
        trace_.read_on();
    }
    print_settled();
    print_until(held_.size());
    tell_losses();  // those of the last read too
    outlet_.flush();
    return lost_ ? Exit::finding : Exit::fine;
}

}  // namespace

Exit follow_trace(const Run& run, const Names& names, const FollowOptions& options) {
    return Follower{run, names, options}.run();
}

}  // namespace qel_tool
