// Sets of timers of one loop, all with the same face, so that a row of a benchmark can take any two of them:
//
//     Set set{count, expired, context};    // stopped; 'expired'(context, number) is called for each expiry
//     set.start(number, delay_ms);         // also for one that runs
//     set.stop(number);
//     set.turn();                          // one turn of the loop: waits for an expiry, runs what is due
//     set.settle();                        // what the library leaves to be done after starts and stops
//
// Each library is used as its users use it. libev and libuv count a delay from the time that their loop read
// last, so starting a timer reads no clock; libevent does the same inside handlers only; Boost.Asio and we
// read the clock at each start. Delays are whole milliseconds, the unit of ours and of libuv. Boost.Asio runs
// the handler of a stopped timer, too, which is what its settle() does.
#pragma once

#include <qel/dm.h>
#include <qel/mgd_timer.h>
#include <qel/tw.h>

#include <ev.h>  // before libevent, whose macros have the names of some of its constants

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <event2/event.h>
#include <uv.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace qel_bench {

using Expired = void (*)(void* context, std::size_t number);

// The timers of a set in one block, each with the way back to the set.
template <class Native>
class NumberedTimers {
  public:
    NumberedTimers(std::size_t count, Expired expired, void* context)
        : elements_(count), expired_(expired), context_(context) {
        for (Element& element : elements_) element.owner = this;
    }
    NumberedTimers(const NumberedTimers&) = delete;
    NumberedTimers& operator=(const NumberedTimers&) = delete;

    void settle() {}

  protected:
    struct Element {
        Native native;
        NumberedTimers* owner;
    };
    static void tell(Native* native) {
        auto* element = reinterpret_cast<Element*>(native);
        NumberedTimers& owner = *element->owner;
        owner.expired_(owner.context_, static_cast<std::size_t>(element - owner.elements_.data()));
    }
    Native& operator[](std::size_t number) { return elements_[number].native; }
    std::size_t size() const { return elements_.size(); }

  private:
    std::vector<Element> elements_;
    Expired expired_;
    void* context_;
};

// ---- Ours, on a dispatcher that the calling thread serves

class PrivateDispatcher {
  public:
    PrivateDispatcher() { qel_dm_create(&handle_, nullptr, QEL_DM_PRIVATE); }
    PrivateDispatcher(const PrivateDispatcher&) = delete;
    ~PrivateDispatcher() { qel_dm_destroy(&handle_); }
    operator qel_dm_handle() const { return handle_; }
    void turn() {
        qel_dm_wait(handle_);
        qel_dm_dispatch(handle_);
    }

  private:
    qel_dm_handle handle_ = 0;
};

class DispatcherTimers : public NumberedTimers<qel_dm_timer> {
  public:
    DispatcherTimers(std::size_t count, Expired expired, void* context)
        : NumberedTimers(count, expired, context) {
        for (std::size_t i = 0; i < count; ++i)
            qel_dm_timer_register(
                dispatcher_, &(*this)[i],
                [](qel_dm_handle, qel_dm_timer, void* native) { tell(static_cast<qel_dm_timer*>(native)); },
                &(*this)[i]);
    }
    void start(std::size_t number, std::uint32_t delay_ms) {
        timespec delay{delay_ms / 1'000, static_cast<long>(delay_ms % 1'000) * 1'000'000};
        qel_dm_timer_settime(dispatcher_, (*this)[number], &delay);
    }
    void stop(std::size_t number) { qel_dm_timer_settime(dispatcher_, (*this)[number], nullptr); }
    void turn() { dispatcher_.turn(); }

  private:
    PrivateDispatcher dispatcher_;
};

// The leaves lie under 100 parents.
class TreeTimers : public NumberedTimers<qel_mgd_timer_leaf> {
  public:
    TreeTimers(std::size_t count, Expired expired, void* context)
        : NumberedTimers(count, expired, context), parents_(100) {
        qel_mgd_timer_tree_init(&tree_);
        for (qel_mgd_timer_parent& parent : parents_) qel_mgd_timer_parent_init(&tree_, nullptr, &parent);
        for (std::size_t i = 0; i < count; ++i)
            qel_mgd_timer_leaf_init(&tree_, &parents_[i % parents_.size()], &(*this)[i], 0, nullptr);
        qel_mgd_timer_attach_qdm(&tree_, dispatcher_,
                                 [](qel_mgd_timer_tree*, qel_mgd_timer_leaf* leaf, void*) { tell(leaf); });
    }
    ~TreeTimers() { qel_mgd_timer_tree_uninit(&tree_); }
    void start(std::size_t number, std::uint32_t delay_ms) {
        qel_mgd_timer_leaf_start(&(*this)[number], delay_ms);
    }
    void stop(std::size_t number) { qel_mgd_timer_leaf_stop(&(*this)[number]); }
    void turn() { dispatcher_.turn(); }

  private:
    PrivateDispatcher dispatcher_;
    qel_mgd_timer_tree tree_{};
    std::vector<qel_mgd_timer_parent> parents_;
};

template <std::uint32_t GranularityMs>
class WheelTimers : public NumberedTimers<qel_tw_timer> {
  public:
    WheelTimers(std::size_t count, Expired expired, void* context) : NumberedTimers(count, expired, context) {
        qel_tw_init_wheel(&wheel_, GranularityMs, 2'048 * GranularityMs, 0, QEL_TW_MODE_CALLBACK, nullptr, 1);
        qel_tw_attach_qdm(wheel_, dispatcher_);
    }
    ~WheelTimers() { qel_tw_destroy_wheel(&wheel_); }
    void start(std::size_t number, std::uint32_t delay_ms) {
        qel_tw_timer_start(
            wheel_, &(*this)[number], delay_ms, [](qel_tw, qel_tw_timer* timer, void*) { tell(timer); },
            nullptr);
    }
    void stop(std::size_t number) { qel_tw_timer_stop(&(*this)[number]); }
    void turn() { dispatcher_.turn(); }

  private:
    PrivateDispatcher dispatcher_;
    qel_tw wheel_ = nullptr;
};

// ---- The peers

class LibevTimers : public NumberedTimers<ev_timer> {
  public:
    LibevTimers(std::size_t count, Expired expired, void* context) : NumberedTimers(count, expired, context) {
        for (std::size_t i = 0; i < count; ++i)
            ev_init(&(*this)[i], [](struct ev_loop*, ev_timer* timer, int) { tell(timer); });
    }
    ~LibevTimers() {
        for (std::size_t i = 0; i < size(); ++i) stop(i);
        ev_loop_destroy(loop_);
    }
    void start(std::size_t number, std::uint32_t delay_ms) {
        ev_timer& timer = (*this)[number];
        ev_timer_stop(loop_, &timer);
        ev_timer_set(&timer, delay_ms * 1e-3, 0.);
        ev_timer_start(loop_, &timer);
    }
    void stop(std::size_t number) { ev_timer_stop(loop_, &(*this)[number]); }
    void turn() { ev_run(loop_, EVRUN_ONCE); }

  private:
    struct ev_loop* loop_ = ev_loop_new(EVFLAG_AUTO);
};

class LibuvTimers : public NumberedTimers<uv_timer_t> {
  public:
    LibuvTimers(std::size_t count, Expired expired, void* context) : NumberedTimers(count, expired, context) {
        uv_loop_init(&loop_);
        for (std::size_t i = 0; i < count; ++i) uv_timer_init(&loop_, &(*this)[i]);
    }
    ~LibuvTimers() {
        for (std::size_t i = 0; i < size(); ++i)
            uv_close(reinterpret_cast<uv_handle_t*>(&(*this)[i]), nullptr);
        uv_run(&loop_, UV_RUN_DEFAULT);
        uv_loop_close(&loop_);
    }
    void start(std::size_t number, std::uint32_t delay_ms) {
        uv_timer_start(&(*this)[number], tell, delay_ms, 0);
    }
    void stop(std::size_t number) { uv_timer_stop(&(*this)[number]); }
    void turn() { uv_run(&loop_, UV_RUN_ONCE); }

  private:
    uv_loop_t loop_;
};

class LibeventTimers : public NumberedTimers<event*> {
  public:
    LibeventTimers(std::size_t count, Expired expired, void* context)
        : NumberedTimers(count, expired, context) {
        for (std::size_t i = 0; i < count; ++i) (*this)[i] = evtimer_new(base_, on_expiry, &(*this)[i]);
    }
    ~LibeventTimers() {
        for (std::size_t i = 0; i < size(); ++i) event_free((*this)[i]);
        event_base_free(base_);
    }
    void start(std::size_t number, std::uint32_t delay_ms) {
        timeval delay{delay_ms / 1'000, static_cast<long>(delay_ms % 1'000) * 1'000};
        evtimer_add((*this)[number], &delay);
    }
    void stop(std::size_t number) { evtimer_del((*this)[number]); }
    void turn() { event_base_loop(base_, EVLOOP_ONCE); }

  private:
    static void on_expiry(evutil_socket_t, short, void* native) { tell(static_cast<event**>(native)); }
    event_base* base_ = event_base_new();
};

class AsioTimers {
  public:
    AsioTimers(std::size_t count, Expired expired, void* context) : expired_(expired), context_(context) {
        timers_.reserve(count);
        for (std::size_t i = 0; i < count; ++i) timers_.emplace_back(io_);
    }
    void start(std::size_t number, std::uint32_t delay_ms) {
        timers_[number].expires_after(std::chrono::milliseconds{delay_ms});
        timers_[number].async_wait([this, number](const boost::system::error_code& error) {
            if (!error) expired_(context_, number);
        });
    }
    void stop(std::size_t number) { timers_[number].cancel(); }
    void settle() { io_.poll(); }
    void turn() {
        io_.restart();
        io_.run_one();
        io_.poll();
    }

  private:
    boost::asio::io_context io_{1};  // no other thread: it may do without locks
    std::vector<boost::asio::steady_timer> timers_;
    Expired expired_;
    void* context_;
};

}  // namespace qel_bench
