// Walks of the radix tree: post-order below a node, and from a node up to the root.
//
// A walk holds the node that it is at; it holds the next one before it lets go. A held node stays in the
// tree, between the nodes that it was between, whatever the visiting function deletes: so there is always a
// place to go on from. What the function deleted goes when the walk lets go of it. Locks and threads: the
// caller has the tree alone. A visiting function or condition may end its thread: the holds then let go on
// the way out, which can run the tree's destructor for records.
#include <qel/thread.h>

#include <cerrno>
#include <utility>

#include "containers/qel_rdx.hpp"
#include "core/qel_codes.hpp"

namespace qel::rdx {
namespace {

constexpr std::uint32_t kSuspendFlags = 0x3;

// Keeps a node in its tree.
class Held {
  public:
    explicit Held(Node* node) : node_(node) { ++node_->walkers; }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
    ~Held() noexcept(false) { let_go(node_); }

    void move_to(Node* next) {
        ++next->walkers;
        let_go(std::exchange(node_, next));
    }
    Node* operator->() const { return node_; }
    Node& operator*() const { return *node_; }
    Node* get() const { return node_; }

  private:
    static void let_go(Node* node) {
        if (--node->walkers > 0 || (node->flags & QEL_RDX_NODE_DELETE_PENDING) == 0) return;
        node->flags &= ~QEL_RDX_NODE_DELETE_PENDING;
        Departed departed{*node->aux};
        settle(node, departed);
    }

    Node* node_;
};

// Keeps a record while the application has its key.
class Lent {
  public:
    explicit Lent(const Node& node) : aux_(*node.aux), record_(*node.info) { ++record_.refcount; }
    Lent(const Lent&) = delete;
    Lent& operator=(const Lent&) = delete;
    ~Lent() noexcept(false) { Departed{aux_}.release(&record_); }

    const std::uint8_t* key() const { return record_.key; }

  private:
    Aux& aux_;
    Record& record_;
};

// What a walk was asked for.
struct Walk {
    Tree& tree;
    std::uint32_t flags;
    qel_rdx_visit function;
    void* context;
    qel_rdx_condition condition = nullptr;  // null: go everywhere
    std::uint32_t flag_word = 0;

    // Both want a node that is held.
    int visit(const Node& node) const;
    bool goes_below(const Node& node) const;
    int below(Node* top) const;
    int up_from(Node* node) const;
};

int Walk::visit(const Node& node) const {
    if (!is_entry(node)) return 0;
    Lent record{node};
    int result = function(&tree, record.key(), node.bit, node.user_data, context);
    if ((flags & kSuspendFlags) != 0) static_cast<void>(qel_thread_check_and_suspend());  // 0 at all times
    return result;
}

bool Walk::goes_below(const Node& node) const {
    if (condition == nullptr || node.info == nullptr) return true;
    Lent record{node};
    return condition(&tree, record.key(), node.bit, node.user_data, flag_word, context) != 0;
}

// Visits everything at and below 'top', which is held meanwhile and so stays above all of it.
int Walk::below(Node* top) const {
    Held whole{top};
    Held at{top};
    bool downwards = true;
    for (;;) {
        if (downwards && goes_below(*at) && (at->left != nullptr || at->right != nullptr)) {
            at.move_to(at->left != nullptr ? at->left : at->right);
            continue;
        }
        if (int result = visit(*at); result != 0) return result;
        if (at.get() == top) return 0;
        Node* parent = at->parent;
        downwards = parent->left == at.get() && parent->right != nullptr;
        at.move_to(downwards ? parent->right : parent);
    }
}

int Walk::up_from(Node* node) const {
    Held at{node};
    for (;;) {
        if (int result = visit(*at); result != 0) return result;
        if (at->parent == nullptr) return 0;
        at.move_to(at->parent);
    }
}

// The highest node of the prefix or inside it, or null.
Node* top_inside(Meeting met, std::uint32_t length) {
    return met.parts(length) || met.node->bit < length ? nullptr : met.node;
}

// The lowest node that covers the prefix.
Node* lowest_above(Meeting met, std::uint32_t length) {
    return met.parts(length) || met.node->bit > length ? met.node->parent : met.node;
}

cerrno walk_inside(const Walk& walk, const std::uint8_t* bytes, std::uint32_t length) {
    Key key = given_key(walk.tree, bytes);
    Meeting met = meet(walk.tree, key, length);
    if (top_inside(met, length) == nullptr) return fatal(ENOENT);
    Node* above = lowest_above(met, length);
    if (above->bit < length) {
        Held at{above};
        if (!walk.goes_below(*at)) return 0;
    }
    // The condition may have changed what is below.
    Node* top = top_inside(meet(walk.tree, key, length), length);
    if (top == nullptr) return 0;
    return walk.below(top) == 0 ? 0 : fatal(EINVAL);
}

constexpr int kBadArgument = static_cast<int>(fatal(EINVAL));

}  // namespace
}  // namespace qel::rdx

int qel_rdx_tree_walk(qel_rdx_tree* tree, uint32_t flags, qel_rdx_visit function, void* context) {
    if (tree == nullptr || function == nullptr) return qel::rdx::kBadArgument;
    return qel::rdx::Walk{*tree, flags, function, context}.below(tree->root);
}

int qel_rdx_tree_walk_cond(qel_rdx_tree* tree, uint32_t flags, qel_rdx_visit function, uint32_t flag_word,
                           qel_rdx_condition condition, void* context) {
    if (tree == nullptr || function == nullptr || condition == nullptr) return qel::rdx::kBadArgument;
    return qel::rdx::Walk{*tree, flags, function, context, condition, flag_word}.below(tree->root);
}

cerrno qel_rdx_subtree_walk(qel_rdx_tree* tree, uint32_t flags, const uint8_t* key, uint32_t prefix_len,
                            qel_rdx_visit function, void* context) {
    if (!qel::rdx::is_valid(tree, key, prefix_len) || function == nullptr) return qel::fatal(EINVAL);
    return walk_inside(qel::rdx::Walk{*tree, flags, function, context}, key, prefix_len);
}

cerrno qel_rdx_subtree_walk_cond(qel_rdx_tree* tree, uint32_t flags, const uint8_t* key, uint32_t prefix_len,
                                 qel_rdx_visit function, uint32_t flag_word, qel_rdx_condition condition,
                                 void* context) {
    if (!qel::rdx::is_valid(tree, key, prefix_len) || function == nullptr || condition == nullptr)
        return qel::fatal(EINVAL);
    return walk_inside(qel::rdx::Walk{*tree, flags, function, context, condition, flag_word}, key,
                       prefix_len);
}

int qel_rdx_tree_walk_reverse(qel_rdx_tree* tree, uint32_t flags, const uint8_t* key, uint32_t prefix_len,
                              qel_rdx_visit function, void* context) {
    if (!qel::rdx::is_valid(tree, key, prefix_len) || function == nullptr) return qel::rdx::kBadArgument;
    qel::rdx::Meeting met = meet(*tree, qel::rdx::given_key(*tree, key), prefix_len);
    return qel::rdx::Walk{*tree, flags, function, context}.up_from(qel::rdx::lowest_above(met, prefix_len));
}
