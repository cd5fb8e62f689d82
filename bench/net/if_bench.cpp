// What does a client of the interface service pay for the kernel's links: to bind, with the dump of all, to
// go through them, to read eight attributes of each, and to hear of a new one?
//
// In a network namespace of the program's own with 1,000 and 10,000 links. Beside a bare dump, which receives
// the kernel's messages and looks for the end only; beside libnl's cache of links, which must be filled anew
// to be read afresh; and beside the whole command `ip -j link`. An operation is one link, but for an event,
// which is the news of one: to a callback, and to a bare recv().
#include <qel/qel.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "support/beside.hpp"
#include "support/links.hpp"

#if __has_include(<netlink/route/link.h>)
#include <netlink/netlink.h>
#include <netlink/route/link.h>
#define HAVE_LIBNL 1
#endif

namespace {

using qel_test::Links;

// As many links as the benchmark asks for, and "lo".
std::size_t have_links(std::size_t wanted) {
    static Links links;
    static std::size_t made = 0;
    if (made > wanted) {
        links.remove_all();
        made = 0;
    }
    for (; made < wanted; ++made) links.add("l" + std::to_string(made));
    return made + 1;
}
std::size_t have_links(const benchmark::State& state) {
    return have_links(static_cast<std::size_t>(state.range(0)));
}

struct Client {
    explicit Client(qel_dm_handle dm = 0) {
        qel_if_init_attr attr{&scope, dm};
        if (qel_if_init(&app, "bench", &attr) != 0) std::abort();
    }
    ~Client() { qel_if_destroy(&app); }
    std::uint32_t app = 0, scope = 0;
};

// Receives whatever is told of links.
class Socket {
  public:
    explicit Socket(unsigned groups = 0) : fd_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)) {
        sockaddr_nl address{};
        address.nl_family = AF_NETLINK;
        address.nl_groups = groups;
        if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) std::abort();
    }
    ~Socket() { close(fd_); }
    void ask() {
        struct {
            nlmsghdr header;
            rtgenmsg body;
        } request{{17, RTM_GETLINK, NLM_F_REQUEST | NLM_F_DUMP, 1, 0}, {AF_PACKET}};
        if (send(fd_, &request, 17, 0) < 0) std::abort();
    }
    // One datagram: whether a message of 'type' is in it.
    bool receive(int type) {
        const ssize_t size = recv(fd_, room_, sizeof(room_), 0);
        auto left = static_cast<unsigned>(std::max<ssize_t>(size, 0));
        for (auto* at = reinterpret_cast<nlmsghdr*>(room_); NLMSG_OK(at, left); at = NLMSG_NEXT(at, left))
            if (at->nlmsg_type == type) return true;
        return size < 0;
    }

  private:
    int fd_;
    alignas(4) char room_[32768];
};

void bare_dump() {
    Socket socket;
    socket.ask();
    while (!socket.receive(NLMSG_DONE)) {
    }
}

// Binds, untimed what ends it.
struct Binding {
    std::unique_ptr<Client> client;
    void end() { client.reset(); }
    void begin() { client = std::make_unique<Client>(); }
};

void bind_beside_a_bare_dump(benchmark::State& state) {
    Binding binding;
    qel_bench::beside(
        state, have_links(state), [&] { binding.end(); }, [&] { binding.begin(); }, [] {}, bare_dump);
}

void bind_beside_ip(benchmark::State& state) {
    Binding binding;
    qel_bench::beside(
        state, have_links(state), [&] { binding.end(); }, [&] { binding.begin(); }, [] {},
        [] {
            if (std::system("ip -j link >/dev/null") != 0) std::abort();
        });
}

std::vector<std::uint64_t> all_handles(std::uint32_t app) {
    qel_if_iteration_filter all;
    std::uint64_t* handles = nullptr;
    std::size_t count = 0;
    qel_if_iteration_filter_init(&all);
    if (qel_if_iterator_glob(app, &all, &handles, &count) != 0) std::abort();
    std::vector<std::uint64_t> found(handles, handles + count);
    std::free(handles);
    return found;
}

void iterate(std::uint32_t app) {
    qel_if_iteration_filter all;
    qel_if_iterator* it = nullptr;
    std::uint64_t ifh = 0;
    qel_if_iteration_filter_init(&all);
    if (qel_if_iterator_start(app, &all, &it) != 0) std::abort();
    while (qel_if_iterator_get_next(app, it, &ifh) == 0) benchmark::DoNotOptimize(ifh);
    qel_if_iterator_end(app, it);
}

// Eight attributes of all.
class BulkReader {
  public:
    explicit BulkReader(std::uint32_t app)
        : app_(app), handles_(all_handles(app)), words_(handles_.size()), longs_(handles_.size()),
          results_(handles_.size()), names_(handles_.size()) {
        for (auto& name : names_) buffers_.push_back(name.data());
    }
    void read() {
        const std::size_t count = handles_.size();
        for (auto* call : {qel_if_bulk_get_type, qel_if_bulk_get_mtu, qel_if_bulk_get_oper_state,
                           qel_if_bulk_get_admin_state, qel_if_bulk_get_tx_bandwidth, qel_if_bulk_get_encap})
            if (call(app_, handles_.data(), words_.data(), results_.data(), count) != 0) std::abort();
        qel_if_bulk_get_snmp_if_index(app_, handles_.data(), longs_.data(), results_.data(), count);
        qel_if_bulk_get_name(app_, handles_.data(), buffers_.data(), results_.data(), QEL_IF_NAME_SIZE,
                             count);
        benchmark::ClobberMemory();
    }

  private:
    std::uint32_t app_;
    std::vector<std::uint64_t> handles_;
    std::vector<std::uint32_t> words_;
    std::vector<std::uint64_t> longs_;
    std::vector<cerrno> results_;
    std::vector<std::array<char, QEL_IF_NAME_SIZE>> names_;
    std::vector<char*> buffers_;
};

#if HAVE_LIBNL
struct Cache {
    nl_sock* socket = nl_socket_alloc();
    nl_cache* links = nullptr;

    Cache() {
        if (nl_connect(socket, NETLINK_ROUTE) != 0) std::abort();
    }
    ~Cache() {
        drop();
        nl_socket_free(socket);
    }
    void fill() {
        if (rtnl_link_alloc_cache(socket, AF_UNSPEC, &links) != 0) std::abort();
    }
    void drop() {
        if (links != nullptr) nl_cache_free(std::exchange(links, nullptr));
    }
    template <class Visit>
    void for_each(Visit visit) {
        for (nl_object* at = nl_cache_get_first(links); at != nullptr; at = nl_cache_get_next(at))
            visit(reinterpret_cast<rtnl_link*>(at));
    }
    void read() {
        fill();
        for_each([](rtnl_link* link) {
            benchmark::DoNotOptimize(rtnl_link_get_arptype(link) + rtnl_link_get_mtu(link));
            benchmark::DoNotOptimize(rtnl_link_get_operstate(link) + rtnl_link_get_flags(link));
            benchmark::DoNotOptimize(rtnl_link_get_txqlen(link) + rtnl_link_get_linkmode(link));
            benchmark::DoNotOptimize(rtnl_link_get_ifindex(link));
            benchmark::DoNotOptimize(rtnl_link_get_name(link));
        });
    }
};

void bind_beside_libnl(benchmark::State& state) {
    Binding binding;
    Cache cache;
    qel_bench::beside(
        state, have_links(state), [&] { binding.end(); }, [&] { binding.begin(); }, [&] { cache.drop(); },
        [&] { cache.fill(); });
}
BENCHMARK(bind_beside_libnl)->Arg(1000)->Arg(10000)->UseManualTime();

void iterate_beside_libnl(benchmark::State& state) {
    const std::size_t count = have_links(state);
    Client client;
    Cache cache;
    cache.fill();
    qel_bench::beside(
        state, count, [&] { iterate(client.app); },
        [&] {
            cache.for_each([](rtnl_link* link) { benchmark::DoNotOptimize(rtnl_link_get_ifindex(link)); });
        });
}
BENCHMARK(iterate_beside_libnl)->Arg(1000)->Arg(10000)->UseManualTime();

void read_8_beside_libnl(benchmark::State& state) {
    const std::size_t count = have_links(state);
    Client client;
    BulkReader reader{client.app};
    Cache cache;
    qel_bench::beside(
        state, count, [] {}, [&] { reader.read(); }, [&] { cache.drop(); }, [&] { cache.read(); });
}
BENCHMARK(read_8_beside_libnl)->Arg(1000)->Arg(10000)->UseManualTime();
#endif

BENCHMARK(bind_beside_a_bare_dump)->Arg(1000)->Arg(10000)->UseManualTime();
BENCHMARK(bind_beside_ip)->Arg(1000)->Arg(10000)->UseManualTime();

using Clock = std::chrono::steady_clock;

// When somebody heard of a link.
class Ear {
  public:
    void hear() {
        when_ = Clock::now();
        heard_ = true;
        heard_.notify_one();
    }
    Clock::time_point wait() {
        heard_.wait(false);
        heard_ = false;
        return when_;
    }

  private:
    Clock::time_point when_;
    std::atomic<bool> heard_{false};
};

// Median and 99th percentile of times, in nanoseconds, as counters.
void count_times(benchmark::State& state, const std::string& name, std::vector<double> seconds) {
    std::ranges::sort(seconds);
    state.counters[name + "_ns"] = seconds[seconds.size() / 2] * 1e9;
    state.counters[name + "_p99"] = seconds[seconds.size() * 99 / 100] * 1e9;
}

// Makes links and waits for each until 'ear' hears. The kernel tells of a link just before it replies to the
// request that makes it, so what counts from that reply, 'after_reply', is a little less than the news took.
void hear_of_links(benchmark::State& state, Links& links, Ear& ear) {
    std::vector<double> whole, after_reply;
    auto since = [](Clock::time_point from, Clock::time_point to) {
        return std::chrono::duration<double>(to - from).count();
    };
    for (auto _ : state) {
        const Clock::time_point begin = Clock::now();
        if (!links.add("news")) std::abort();
        const Clock::time_point reply = Clock::now();
        const Clock::time_point heard = ear.wait();
        whole.push_back(since(begin, heard));
        after_reply.push_back(since(reply, heard));
        state.SetIterationTime(whole.back());
        links.remove("news");
    }
    count_times(state, "from_request", whole);
    count_times(state, "after_reply", after_reply);
}

void event_to_a_callback(benchmark::State& state) {
    have_links(0);
    Links links;
    Ear ear;
    qel_dm_handle dm = 0;
    if (qel_dm_create(&dm, "bench", QEL_DM_PRIVATE) != 0) std::abort();
    std::atomic<bool> stop = false;
    std::thread server;
    {
        Client client{dm};
        qel_if_event_cb_vector vector{};
        vector.created = [](std::uint64_t, std::uint32_t, std::uint64_t heard) {
            reinterpret_cast<Ear*>(heard)->hear();
        };
        std::uint32_t reg = 0;
        qel_if_register_callbacks(client.app, &vector, nullptr, reinterpret_cast<std::uintptr_t>(&ear), &reg);
        server = std::thread([&] {
            while (!stop && qel_dm_wait(dm) == 0) qel_dm_dispatch(dm);
        });
        hear_of_links(state, links, ear);
        stop = true;
        qel_dm_execute(
            dm, [](qel_dm_handle, std::uint64_t, std::uint64_t) {}, 0, 0);
        server.join();
    }
    qel_dm_destroy(&dm);
}
BENCHMARK(event_to_a_callback)->Iterations(500)->UseManualTime();

void event_to_a_bare_recv(benchmark::State& state) {
    have_links(0);
    Links links;
    Ear ear;
    std::atomic<bool> stop = false;
    Socket socket{RTMGRP_LINK};
    std::thread listener([&] {
        while (!stop)
            if (socket.receive(RTM_NEWLINK)) ear.hear();
    });
    hear_of_links(state, links, ear);
    stop = true;
    links.add("last");  // wakes it
    listener.join();
    links.remove_all();
}
BENCHMARK(event_to_a_bare_recv)->Iterations(500)->UseManualTime();

}  // namespace

int main(int argc, char** argv) {
    if (!qel_test::enter_own_network()) {
        std::fprintf(stderr, "if_bench: no right to a network namespace\n");
        return 0;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
