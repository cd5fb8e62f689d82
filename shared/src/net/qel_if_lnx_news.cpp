// Dumps and news of the kernel's links, and the reports that come of them.
//
// One socket brings the news, for all registrations; every dispatcher that one of them has waits for it, for
// one event at a time. Whoever is woken first reads until nothing is left, reports as it goes, and then has
// all dispatchers wait again; one that is woken meanwhile only leaves word. So news is taken in its order,
// and each piece once.
//
//     dispatchers --- woken ---> begin_reading --- news: table, report --- end_reading: all wait again
//                                     ^                                        |
//                                     +------------ word was left -------------+
//
// When the kernel has dropped news because nobody took it in time, what did come is taken first, and then a
// fresh dump is held against the table: what differs is reported. The same is done once when the socket is
// opened, since nobody followed the kernel until then. A link that went just before the dump is in news that
// still waits, which is taken next and must not bring the link back: see OldNews. A comparison that failed is
// made up for with the next news.
//
// Locks: 'news_mutex' guards the watches and the turn, and is held while dispatchers are told to wait, never
// across a report. Threads: dispatchers'. Restart: nothing stays.
#include "net/qel_if_lnx_news.hpp"

#include <qel/if_shim.h>
#include <qel/queue.h>

#include <algorithm>
#include <cerrno>

#include "net/qel_if.hpp"
#include "net/qel_if_lnx_links.hpp"
#include "net/qel_if_lnx_socket.hpp"

namespace qel::interfaces::lnx {
namespace {

using netlink::Arrival;
using netlink::Kind;
using netlink::Message;
using netlink::Socket;

using Room = Owned<std::byte>;

Room make_room() {
    return allocate_zeroed<std::byte>(QEL_MEM_INTF, netlink::kDatagramSize);
}

// --- Messages

// The links that a comparison found gone. The kernel spoke of them before it gave the dump, so what it said
// waits in the socket, the word of their end last; until that one comes nothing else about them is true.
struct OldNews {
    Owned<std::uint64_t> handles;  // ascending
    std::size_t count = 0;

    bool has(std::uint64_t ifh) const { return std::binary_search(begin(), end(), ifh); }
    void forget(std::uint64_t ifh) {
        std::uint64_t* at = std::lower_bound(begin(), end(), ifh);
        if (at == end() || *at != ifh) return;
        std::copy(at + 1, end(), at);
        --count;
    }
    std::uint64_t* begin() const { return handles.get(); }
    std::uint64_t* end() const { return handles.get() + count; }
};

// What reading is for, and what happened on the way.
struct Intake {
    bool is_dump;
    bool tell;  // report what is created and deleted
    OldNews old_news{};
    bool is_interrupted = false;
    bool lost = false;
};

// The value of both reports.
constexpr std::uint32_t kOne = 1;
constexpr qel_if_shim_if_event kReport{sizeof(kOne), &kOne};

cerrno take_new(const netlink::Link& link, const Intake& intake) {
    const Change change = process_rtnl_msg_new(link);
    if (change == Change::no_memory) return no_memory<"IFERROR300">();
    if (change == Change::created && intake.tell)
        static_cast<void>(qel_if_shim_report_if_creation(link.index, &kReport));  // a valid record
    return 0;
}

// Tells of a link's end before it leaves the table.
cerrno take_deleted(std::uint64_t ifh, const Intake& intake, std::uint32_t unseen_since = kAnyLink) {
    if (!has_link(ifh, unseen_since)) return fatal(ENOENT);
    if (intake.tell) static_cast<void>(qel_if_shim_report_if_deletion(ifh, &kReport));  // a valid record
    return process_rtnl_msg_del(ifh, unseen_since);
}

// True when the message ends the reading, with 'result'.
bool take_message(const Message& message, Intake& intake, cerrno& result) {
    intake.is_interrupted |= message.is_interrupted;
    switch (message.kind) {
    case Kind::error:
        result = fatal(EFAULT);
        return true;
    case Kind::done:
        result = 0;
        return true;
    case Kind::new_link:
        // A link that there was no memory for is made good by the next dump.
        if (!intake.old_news.has(message.link.index) && take_new(message.link, intake) != 0)
            intake.lost = true;
        return false;
    case Kind::deleted_link:
        intake.old_news.forget(message.link.index);
        static_cast<void>(take_deleted(message.link.index, intake));  // unknown: nobody was told of it
        return false;
    case Kind::other:
        return false;
    }
    return false;
}

// Reads until a message ends it: 0, or 0xa000000e for the kernel's refusal; or until nothing more comes,
// which is 0x8000000b and the normal end of news.
cerrno lnx_socket_recv_rtnlmsg(int fd, std::span<std::byte> room, Intake& intake) {
    for (;;) {
        std::span<const std::byte> datagram;
        const Arrival arrival = netlink::receive(fd, intake.is_dump, room, datagram);
        intake.lost |= arrival == Arrival::lost;
        if (arrival == Arrival::nothing || (arrival == Arrival::lost && intake.is_dump))
            return try_again(EAGAIN);
        cerrno result = 0;
        netlink::Reader reader{datagram};
        for (Message message; reader.next(message);)
            if (take_message(message, intake, result)) return result;
    }
}

// --- Dumps

constexpr int kMostDumps = 4;

// Reads the list again while it changed under the dump. Whether it came whole goes to 'is_whole'.
cerrno read_list(int fd, Intake& intake, bool& is_whole) {
    const Room room = make_room();
    if (!room) return no_memory<"IFERROR301">();
    is_whole = false;
    for (int i = 0; i < kMostDumps && !is_whole; ++i) {
        intake.is_interrupted = intake.lost = false;
        if (cerrno error = netlink::attr_socket_send_listreq(fd); error != 0)
            return unexpected_code<"IFERROR302">(error);
        const cerrno result = lnx_socket_recv_rtnlmsg(fd, {room.get(), netlink::kDatagramSize}, intake);
        is_whole = result == 0 && !intake.is_interrupted && !intake.lost;
        if (result != 0) return 0;
    }
    return 0;
}

// Holds the kernel's list against the table, and reports what differs: what has gone since goes to 'gone',
// too. False if there is no whole list, or no memory for what differs. Meanwhile clients may bind, and the
// first of them fills the table from a list of its own: of those links the kernel told after the comparison
// began.
bool compare(OldNews& gone) {
    Socket socket;
    Intake intake{.is_dump = true, .tell = true};
    const std::uint32_t number = begin_comparison();
    bool is_whole = false, no_room = false;
    if (netlink::attr_socket_create(socket) != 0 || read_list(socket.get(), intake, is_whole) != 0)
        return false;
    if (!is_whole) return false;
    gone.handles = snapshot(gone.count, no_room, number);
    for (std::uint64_t ifh : gone)
        static_cast<void>(take_deleted(ifh, intake, number));  // else somebody was faster
    return !no_room;
}

// --- News

struct Watch {
    void* link;  // in 'watches'
    std::uint32_t reg_handle;
    qel_dm_handle dm;
};

constinit Mutex news_mutex;

struct News {
    netlink::StaticSocket rtnl_event_fd;
    netlink::StaticSocket dying;  // closed under whoever reads it, who puts an end to it
    std::byte* room;              // of whoever reads
    qel_queue watches;
    bool reading;
    bool word_left;  // for whoever reads: once more
    bool must_compare;
};
constinit News news QEL_GUARDED_BY(news_mutex){};

void free_room_locked() QEL_REQUIRES(news_mutex) {
    const Room old{std::exchange(news.room, nullptr)};
}

template <class Visit>
void for_each_watch_locked(Visit visit) QEL_REQUIRES(news_mutex) {
    for (auto* at = static_cast<Watch*>(qel_queue_peek_head(&news.watches)); at != nullptr;
         at = static_cast<Watch*>(qel_queue_get_next(at)))
        visit(*at);
}

void on_event(qel_dm_handle, std::uint32_t, std::uint32_t, void*);

int wait_locked(qel_dm_handle dm) QEL_REQUIRES(news_mutex) {
    return qel_dm_fd_register(dm, static_cast<std::uint32_t>(news.rtnl_event_fd.get()), QEL_DM_READABLE,
                              on_event, nullptr);
}

// Of one who reads the news. The turn also ends with a thread that a callback of an application ends.
class Turn {
  public:
    Turn() {
        Locked lock{news_mutex};
        is_mine_ = !news.reading && news.rtnl_event_fd;
        if (is_mine_) news.reading = true;
        news.word_left = true;
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    ~Turn() {
        if (!is_mine_) return;
        Locked lock{news_mutex};
        news.must_compare = true;  // the thread ended in a callback, before it came to the rest
        end_locked();
    }

    // True while there is something to read, from 'fd', or to compare; the turn ends with that.
    bool goes_on(int& fd, std::byte*& room, bool& must_compare) {
        if (!is_mine_) return false;
        Locked lock{news_mutex};
        news.dying.reset();
        if (!std::exchange(news.word_left, false) || !news.rtnl_event_fd) {
            end_locked();
            return false;
        }
        fd = news.rtnl_event_fd.get();
        room = news.room;
        must_compare = std::exchange(news.must_compare, false);
        return true;
    }

    // After a comparison: what came before it waits to be read. One that failed is wanted again, but not now.
    void note_comparison(bool is_done) {
        Locked lock{news_mutex};
        news.word_left |= is_done;
        news.must_compare |= !is_done;
    }

  private:
    void end_locked() QEL_REQUIRES(news_mutex) {
        is_mine_ = false;
        news.reading = false;
        news.dying.reset();
        if (!news.rtnl_event_fd) free_room_locked();
        for_each_watch_locked([](const Watch& watch) QEL_REQUIRES(news_mutex) {
            static_cast<void>(wait_locked(watch.dm));  // one that has gone hears no more
        });
    }

    bool is_mine_ = false;
};

void read_news() {
    Turn turn;
    OldNews gone;
    int fd = -1;
    std::byte* room = nullptr;
    bool must_compare = false;
    while (turn.goes_on(fd, room, must_compare)) {
        Intake intake{.is_dump = false, .tell = true, .old_news = std::exchange(gone, {})};
        static_cast<void>(  // "nothing more" is how news ends
            lnx_socket_recv_rtnlmsg(fd, {room, netlink::kDatagramSize}, intake));
        if (intake.lost || must_compare) turn.note_comparison(compare(gone));
    }
}

void on_event(qel_dm_handle, std::uint32_t, std::uint32_t, void*) {
    read_news();
}

void on_open(qel_dm_handle, std::uint64_t, std::uint64_t) {
    read_news();
}

// Opens the socket for news; what happened before will be found by a comparison.
cerrno event_socket_create_locked() QEL_REQUIRES(news_mutex) {
    Room room = make_room();
    if (!room) return no_memory<"IFERROR303">();
    Socket socket;
    if (cerrno error = netlink::event_socket_create(socket); error != 0)
        return unexpected_code<"IFERROR304">(error);
    if (!news.reading) news.room = room.release();
    news.rtnl_event_fd.reset(std::move(socket));
    news.must_compare = true;
    return 0;
}

// Closes it, or leaves that to whoever reads it; with one dying already, that is the one being read.
void event_socket_destroy_locked() QEL_REQUIRES(news_mutex) {
    if (news.reading && !news.dying)
        news.dying.reset(news.rtnl_event_fd.take());
    else
        news.rtnl_event_fd.reset();
    if (!news.reading) free_room_locked();
}

bool is_watched_locked(qel_dm_handle dm) QEL_REQUIRES(news_mutex) {
    bool found = false;
    for_each_watch_locked([&](const Watch& watch) { found |= watch.dm == dm; });
    return found;
}

cerrno watch_locked(Owned<Watch> watch) QEL_REQUIRES(news_mutex) {
    const bool is_first = !news.rtnl_event_fd;
    if (is_first)
        if (cerrno error = event_socket_create_locked(); error != 0) return error;
    const qel_dm_handle dm = watch->dm;
    if (int error = wait_locked(dm); error != 0) {
        if (is_first) event_socket_destroy_locked();
        return unexpected_code<"IFERROR305">(fatal(error));
    }
    qel_queue_enqueue(&news.watches, watch.release());
    // Without memory for the job the first news brings the comparison.
    if (is_first) static_cast<void>(qel_dm_execute(dm, on_open, 0, 0));
    return 0;
}

}  // namespace

cerrno read_list(int fd) {
    Intake intake{.is_dump = true, .tell = false};
    bool is_whole = false;
    return read_list(fd, intake, is_whole);
}

cerrno watch(std::uint32_t reg_handle, qel_dm_handle dm) {
    Owned<Watch> made = allocate_zeroed<Watch>(QEL_MEM_INTF);
    if (!made) return no_memory<"IFERROR306">();
    made->reg_handle = reg_handle;
    made->dm = dm;
    Locked lock{news_mutex};
    return watch_locked(std::move(made));
}

void unwatch(std::uint32_t reg_handle) {
    Locked lock{news_mutex};
    Watch* found = nullptr;
    for_each_watch_locked([&](Watch& watch) {
        if (watch.reg_handle == reg_handle) found = &watch;
    });
    if (found == nullptr) return;
    qel_queue_unqueue(&news.watches, found);
    const Owned<Watch> owned{found};
    // A descriptor leaves the tables of dispatchers before it is closed.
    if (!is_watched_locked(found->dm))
        static_cast<void>(qel_dm_fd_register(found->dm, static_cast<std::uint32_t>(news.rtnl_event_fd.get()),
                                             0, nullptr, nullptr));  // or the dispatcher has gone
    if (qel_queue_empty(&news.watches) != 0) event_socket_destroy_locked();
}

}  // namespace qel::interfaces::lnx
