// A tree on a dispatcher: one dispatcher timer, set for the earliest leaf, whose expiry runs the tree's
// handler.
//
// The tree remembers for which expiry its dispatcher timer is set, so nothing is asked or set while the
// earliest leaf stays the same. A dispatcher may be early by 200 us; it is set late by as much, so that a
// leaf is due when its expiry arrives.
//
// An expiry that a thread has picked outlives its tree: the tree may be detached, ended and freed by another
// thread or by the tree's own handler. So the dispatcher timer carries a number, which leads to an
// attachment, which leads to the tree until it is detached:
//
//    dispatcher timer --number--> Attachment --tree, under its mutex--> Tree
//
// Invariant: the expiry touches the tree only inside a Visit, which holds the attachment's mutex and then the
// tree's. Who detaches takes the attachment's mutex alone, so once it has it, no visit goes on and none
// begins. Locks: the attachment's mutex, the tree's, the dispatcher's; none while a handler runs. Threads:
// the dispatcher's; attach and detach on any. Restart: nothing stays.
#include <qel/time.h>

#include <cerrno>
#include <optional>

#include "containers/qel_idm_family.hpp"
#include "core/qel_owned.hpp"
#include "dispatch/qel_dm.hpp"
#include "dispatch/qel_dm_report.hpp"
#include "timers/qel_mgd_timer.hpp"

namespace qel::mgd {
namespace {

constexpr std::uint32_t kMaxAttachments = 1 << 20;
constexpr std::int64_t kDispatcherEarlyNs = 200'000;
constexpr timespec kSoon{0, kNanosecondsPerMillisecond};

struct Attachment {
    Mutex mutex;
    Tree* tree QEL_GUARDED_BY(mutex);  // null once detached
    std::uint32_t id;                  // as in the tree
};

void free_attachment(void* object) {
    auto* attachment = static_cast<Attachment*>(object);
    attachment->mutex.destroy();
    qel_named_free(attachment);
}

constinit FamilyPool attachments{{"timer trees", nullptr, kMaxAttachments, free_attachment}};

// The attached tree with its mutex, for a scope or, after the handlers in between, for several; nothing from
// the moment when the tree is found detached.
class Visit {
  public:
    explicit Visit(Attachment& attachment) : attachment_(attachment) { enter(); }
    Visit(const Visit&) = delete;
    ~Visit() = default;

    explicit operator bool() const { return tree_lock_.has_value(); }
    Tree& tree() const QEL_NO_THREAD_SAFETY_ANALYSIS { return *attachment_.tree; }

    // Runs 'body' with both mutexes free; afterwards, also if the body ends the thread, test for the tree
    // again.
    template <class Body>
    void while_away(Body&& body) {
        struct Return {
            Visit& visit;
            ~Return() { visit.enter(); }
        };
        tree_lock_.reset();
        attachment_lock_.reset();
        Return back{*this};
        body();
    }

  private:
    void enter() QEL_NO_THREAD_SAFETY_ANALYSIS {
        attachment_lock_.emplace(attachment_.mutex);
        if (attachment_.tree == nullptr) return;
        tree_lock_.emplace(mutex_of(*attachment_.tree));
        // Who is about to detach has been at the tree already.
        if (tree().attachment != attachment_.id) tree_lock_.reset();
    }

    // In this order: the tree's mutex is let go first.
    Attachment& attachment_;
    std::optional<Locked> attachment_lock_;
    std::optional<Locked> tree_lock_;
};

// Sets the dispatcher timer for the tree's expiry, or stops it: 0 or an errno.
int set_dispatcher_timer_locked(Tree& tree, const timespec* now) {
    const timespec& expiry = tree.root.node.exptime;
    if (!is_running(expiry)) return qel_dm_timer_settime(tree.dispatcher, tree.dm_timer, nullptr);
    timespec left = time_left(expiry, now != nullptr ? *now : monotonic_now());
    if (!is_running(left)) left = kSoon;
    left = add(left, {0, kDispatcherEarlyNs});
    return qel_dm_timer_settime(tree.dispatcher, tree.dm_timer, &left);
}

// ---- Expiry

void report_early_locked(Tree& tree, const timespec& now) {
    constexpr timespec stuck{0, 5 * kNanosecondsPerMillisecond};
    if (!is_running(tree.root.node.exptime))
        return;  // The last leaf was stopped while its expiry was picked.
    const timespec left = time_left(tree.root.node.exptime, now);
    if (order(left, stuck) > 0) {
        report<"MTMR40", "QEL-MTMR-ERROR: timer tree (%p) is stuck due to early wakeup (%d.%d secs)">(
            &tree, static_cast<int>(left.tv_sec), static_cast<int>(left.tv_nsec));
        return;
    }
    event<"MTMR41", "QEL-MTMR-INFO: minor clock readjustment to tree (%p) due to NTP for %d ms">(
        event_buffer(), QEL_DT_LEVEL_ERROR, &tree, static_cast<int>(qel_timespec_to_msec(&left)));
}

// The earliest leaf if it is due. The clock is read again only when the last reading, 'now', says that it
// isn't.
Leaf* next_due_locked(Tree& tree, timespec& now) {
    const Node& root = tree.root.node;
    if (!is_due(root, now)) {
        if (!is_running(root.exptime)) return nullptr;
        now = monotonic_now();
        if (!is_due(root, now)) return nullptr;
    }
    return first_leaf_locked(tree.root);
}

// Marks the tree as handling, and sets its dispatcher timer at the end, also when a handler ends its thread.
class Handling {
  public:
    explicit Handling(Visit& visit) : visit_(visit) { visit.tree().in_handler = 1; }
    Handling(const Handling&) = delete;
    // Waking the dispatcher's threads is a cancellation point.
    ~Handling() noexcept(false) {
        if (!visit_) return;
        visit_.tree().in_handler = 0;
        visit_.tree().armed = {};
        adjust_locked(visit_.tree(), nullptr);
    }

  private:
    Visit& visit_;
};

// A leaf that its handler always finds due again would keep qel_dm_destroy() waiting for this thread.
bool dispatcher_goes() {
    return dm::served_here != nullptr && dm::served_here->destroy_pending();
}

void handle_due(Visit& visit, timespec now) {
    Handling handling{visit};
    while (visit && !dispatcher_goes()) {
        Tree& tree = visit.tree();
        Leaf* leaf = next_due_locked(tree, now);
        if (leaf == nullptr) return;
        delink_locked(leaf->node);
        visit.while_away([&tree, leaf, handler = tree.handler, context = leaf->context] {
            handler(&tree, leaf, context);
        });
    }
}

// A tree that is in its handler was armed again while this expiry was under way: the handling thread sees to
// it.
void expire(Visit& visit) {
    Tree& tree = visit.tree();
    if (tree.in_handler != 0) return;
    tree.armed = {};
    timespec now = monotonic_now();
    if (next_due_locked(tree, now) == nullptr) {
        report_early_locked(tree, now);
        adjust_locked(tree, &now);
    } else if (tree.attach_state == QEL_MGD_TIMER_ATTACHED_EXPLICIT) {
        qel_dm_xd_set(QEL_DM_XD_TIMER_TREE, tree.xd_event_id);
    } else {
        handle_due(visit, now);
    }
}

void timer_expired(qel_dm_handle, qel_dm_timer, void* context) {
    Retained<Attachment> attachment =
        attachments.retain<Attachment>(reinterpret_cast<std::uintptr_t>(context));
    if (!attachment) return;
    Visit visit{*attachment};
    if (visit) expire(visit);
}

// ---- Attaching and detaching

// A number that leads to the tree; 0 when memory is short.
std::uint32_t make_attachment(Tree& tree) QEL_NO_THREAD_SAFETY_ANALYSIS {
    Owned<Attachment> attachment = allocate_zeroed<Attachment>(QEL_MEM_TIMER);
    if (!attachment || !attachments.make() || attachment->mutex.init() != 0) return 0;
    attachment->tree = &tree;
    if (qel_idm_get_id(attachments.handle(), attachment.get(), &attachment->id) != 0) {
        attachment->mutex.destroy();
        return 0;
    }
    return attachment.release()->id;  // The ID's last release frees it.
}

void end_attachment(std::uint32_t id) {
    {
        Retained<Attachment> attachment = attachments.retain<Attachment>(id);
        Locked lock{attachment->mutex};
        attachment->tree = nullptr;
    }
    attachments.release(id);
}

struct Wish {
    qel_dm_handle dispatcher;
    std::uint32_t state;
    qel_mgd_timer_handler handler;
    std::uint32_t event_id;
};

int attach_locked(Tree& tree, const Wish& wish) {
    if (tree.attach_state != QEL_MGD_TIMER_DETACHED) return EBUSY;
    if (qel_dm_is_handle(wish.dispatcher) == 0) return EINVAL;
    const std::uint32_t attachment = make_attachment(tree);
    if (attachment == 0)
        return failed<"MTMR42", "QEL-MTMR-ERROR: no memory to attach tree (%p)">(ENOMEM, &tree);
    Undo end{[&] { attachments.release(attachment); }};
    int error = qel_dm_timer_register(wish.dispatcher, &tree.dm_timer, timer_expired,
                                      reinterpret_cast<void*>(std::uintptr_t{attachment}));
    if (error != 0)
        return failed<"MTMR43", "QEL-MTMR-ERROR: failed to register timer of tree (%p), rc=%d">(error, &tree,
                                                                                                error);
    end.keep();
    tree.attachment = attachment;
    tree.attach_state = wish.state;
    tree.dispatcher = wish.dispatcher;
    tree.handler = wish.handler;
    tree.xd_event_id = wish.event_id;
    event<"MTMR44", "QEL-MTMR-INFO: tree (%p) attached to dispatcher %lu">(event_buffer(), QEL_DT_LEVEL_ERROR,
                                                                           &tree, wish.dispatcher);
    adjust_locked(tree, nullptr);
    return 0;
}

int attach(Tree* tree, const Wish& wish) {
    Held held{tree};
    return held ? attach_locked(*tree, wish) : EINVAL;
}

// Leaves the tree as one that was never attached, and gives the number that its dispatcher timer carried.
std::uint32_t detach_locked(Tree& tree) {
    // A destroyed dispatcher has freed the timer; one that is about to end does so soon.
    if (qel_dm_is_handle(tree.dispatcher) != 0)
        static_cast<void>(qel_dm_timer_register(tree.dispatcher, &tree.dm_timer, nullptr, nullptr));
    event<"MTMR45", "QEL-MTMR-INFO: tree (%p) detached from dispatcher %lu">(
        event_buffer(), QEL_DT_LEVEL_ERROR, &tree, tree.dispatcher);
    tree.attach_state = QEL_MGD_TIMER_DETACHED;
    tree.dispatcher = 0;
    tree.dm_timer = nullptr;
    tree.handler = nullptr;
    tree.xd_event_id = 0;
    tree.in_handler = 0;
    tree.armed = {};
    return std::exchange(tree.attachment, 0);
}

}  // namespace

void adjust_locked(Tree& tree, const timespec* now) {
    const timespec& expiry = tree.root.node.exptime;
    if (tree.in_handler != 0 || tree.attach_state == QEL_MGD_TIMER_DETACHED) return;
    if (order(tree.armed, expiry) == 0) return;
    int error = set_dispatcher_timer_locked(tree, now);
    if (error != 0) report<"MTMR46", "QEL-MTMR-ERROR: failed to set timer of tree (%p), rc=%d">(&tree, error);
    tree.armed = error == 0 ? expiry : timespec{};
}

int detach(Tree& tree) {
    std::uint32_t attachment = 0;
    {
        Held held{&tree};
        if (!held) return EINVAL;
        if (tree.attach_state == QEL_MGD_TIMER_DETACHED) return 0;
        attachment = detach_locked(tree);
    }
    end_attachment(attachment);
    return 0;
}

}  // namespace qel::mgd

using namespace qel;
using namespace qel::mgd;

QEL_API int qel_mgd_timer_attach_qdm(Tree* tree, qel_dm_handle dm, qel_mgd_timer_handler handler) {
    if (tree == nullptr) return EINVAL;
    if (dm == 0 && handler == nullptr) return detach(*tree);
    if (handler == nullptr) return EINVAL;
    return attach(tree, {dm, QEL_MGD_TIMER_ATTACHED, handler, 0});
}

QEL_API int qel_mgd_timer_xd_attach_qdm(Tree* tree, qel_dm_handle dm, uint32_t event_id) {
    return attach(tree, {dm, QEL_MGD_TIMER_ATTACHED_EXPLICIT, nullptr, event_id});
}

QEL_API int qel_mgd_timer_detach_qdm(Tree* tree) {
    return tree != nullptr ? detach(*tree) : EINVAL;
}

QEL_API int qel_mgd_timer_attach_other_dm(Tree*, void*, qel_mgd_timer_handler) {
    return EINVAL;
}

QEL_API void qel_mgd_timer_detach_other_dm(Tree*) {}

QEL_API void qel_mgd_timer_adjust_dm(Tree* tree) {
    if (tree != nullptr && tree->root.node.init_mark == QEL_MGD_TIMER_INITIALIZED)
        adjust_locked(*tree, nullptr);
}
