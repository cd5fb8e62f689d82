// AVL trees: how nodes enter a tree, leave it and are found.
//
// Nodes have no link to their parent. Insertion and deletion go down from the root and note the links that
// they pass, in a path on the stack; then they go up along it and put the balances right until the height of
// a subtree is what it was. Both sides are one piece of code: a side is -1 for left and 1 for right, as in
// 'balance', so a node leans to 'side' when its balance is 'side'.
//
// Each level of a descent costs a cache line that depends on the one before. Both children are asked for
// before the compare function runs, so that its time isn't added to that; and the way on is selected without
// a jump, so that a compare function without one, too, leaves the processor nothing to guess wrong. At 60,000
// nodes a search takes half the time so (tree_bench).
//
// Invariant: 'balance' of each node is the height of its right subtree less that of its left one, in -1..1.
// Locks and threads: none; the caller of each tree holds its own lock. Restart: nothing stays.
#include "containers/qel_avl.hpp"

#include <array>

namespace qel::avl {
namespace {

static_assert(sizeof(Node) == 24 && offsetof(Node, right) == 8 && offsetof(Node, balance) == 16 &&
              offsetof(Node, flags) == 18);
static_assert(offsetof(qel_avl, compare) == 8 && offsetof(qel_avl, height_changed) == 16 &&
              offsetof(qel_avl, size) == 20);

// The links from the root's down to the one where a descent ended.
class Path {
  public:
    void enter(Node*& link) { links_[count_++] = &link; }
    Node*& end() const { return *links_[count_ - 1]; }

    // Puts 'heir', a childless node, in the place of 'gone', to whose link the path led before it went on to
    // the heir's.
    void replace(std::size_t level, Node& gone, Node& heir) {
        heir.left = gone.left;
        heir.right = gone.right;
        heir.balance = gone.balance;
        *links_[level] = &heir;
        links_[level + 1] = &heir.left;
    }
    std::size_t level() const { return count_ - 1; }

    bool carry_growth() const;
    bool carry_shrinkage() const;

  private:
    // The side of the node at 'level' on which the path goes on.
    int side_at(std::size_t level) const { return links_[level + 1] == &(*links_[level])->right ? 1 : -1; }

    std::array<Node**, kMaxHeight + 1> links_;
    std::size_t count_ = 0;
};

Node*& child(Node& node, int side) {
    return side < 0 ? node.left : node.right;
}

void set_balance(Node& node, int balance) {
    node.balance = static_cast<std::int16_t>(balance);
}

// The inner child of 'raised', which is the child of 'top' at 'side', comes to the top of both.
Node* rotate_twice(Node& top, Node& raised, int side) {
    Node& pivot = *child(raised, -side);
    child(raised, -side) = child(pivot, side);
    child(pivot, side) = &raised;
    child(top, side) = child(pivot, -side);
    child(pivot, -side) = &top;
    set_balance(top, pivot.balance == side ? -side : 0);
    set_balance(raised, pivot.balance == -side ? side : 0);
    pivot.balance = 0;
    return &pivot;
}

// Levels 'top', whose subtree at 'side' is two levels higher than the other one; gives the new top. The
// height stays as it is if the child at 'side' is even, and falls by one otherwise.
Node* rotate(Node& top, int side) {
    Node& raised = *child(top, side);
    if (raised.balance == -side) return rotate_twice(top, raised, side);
    child(top, side) = child(raised, -side);
    child(raised, -side) = &top;
    const bool even = raised.balance == 0;
    set_balance(top, even ? side : 0);
    set_balance(raised, even ? -side : 0);
    return &raised;
}

// The subtree at the path's end has grown by a level. Tells whether the whole tree has.
bool Path::carry_growth() const {
    for (std::size_t level = count_ - 1; level-- > 0;) {
        Node& node = **links_[level];
        const int side = side_at(level);
        if (node.balance == side) {
            *links_[level] = rotate(node, side);
            return false;
        }
        set_balance(node, node.balance + side);
        if (node.balance == 0) return false;
    }
    return true;
}

// The subtree at the path's end has lost a level. Tells whether the whole tree has.
bool Path::carry_shrinkage() const {
    for (std::size_t level = count_ - 1; level-- > 0;) {
        Node& node = **links_[level];
        const int side = side_at(level);
        if (node.balance == -side) {
            const bool keeps_height = child(node, -side)->balance == 0;
            *links_[level] = rotate(node, -side);
            if (keeps_height) return false;
            continue;
        }
        set_balance(node, node.balance - side);
        if (node.balance != 0) return false;
    }
    return true;
}

// Goes from the root to the node that is equal to 'goal', or else to the null link where it would hang.
void descend(qel_avl& tree, const Node& goal, Path& path) {
    path.enter(tree.root);
    for (Node* node = tree.root; node != nullptr;) {
        want_children(*node);
        const int order = tree.compare(node, &goal);
        if (is_equal(order)) return;
        path.enter(way_on(*node, order));
        node = path.end();
    }
}

// Puts the highest node of the left subtree in the place of the node at the path's end; the path then ends
// where the former was.
void replace_by_predecessor(Path& path) {
    Node& gone = *path.end();
    const std::size_t level = path.level();
    path.enter(gone.left);
    while (path.end()->right != nullptr) path.enter(path.end()->right);
    Node& heir = *path.end();
    path.end() = heir.left;
    path.replace(level, gone, heir);
}

// Takes out the node at the path's end.
Node* take_out_end(qel_avl& tree, Path& path) {
    Node* gone = path.end();
    if (gone->left != nullptr && gone->right != nullptr)
        replace_by_predecessor(path);
    else
        path.end() = gone->left != nullptr ? gone->left : gone->right;
    tree.height_changed = path.carry_shrinkage();
    --tree.size;
    *gone = {};
    return gone;
}

// 'Goal' is what the second argument of 'compare' points to.
template <class Goal, class Compare>
cerrno find(const qel_avl& tree, const void* goal, Node** found, Compare compare) {
    const Goal* wanted = static_cast<const Goal*>(goal);
    Node* node = tree.root;
    while (node != nullptr) {
        want_children(*node);
        const int order = compare(node, wanted);
        if (is_equal(order)) break;
        node = way_on(*node, order);
    }
    *found = node;
    return node != nullptr ? 0 : warning(EEXIST);
}
static_assert(warning(EEXIST) == 0x40000011);

// The checks that both searches share.
template <class Goal, class Compare>
cerrno search(const qel_avl* tree, const void* goal, Node** found, Compare compare) {
    if (found == nullptr) return bad_argument<"AVL9">("found");
    if (tree == nullptr) return bad_argument<"AVL10">("tree");
    if (goal == nullptr) return bad_argument<"AVL11">("goal");
    if (compare == nullptr) return bad_argument<"AVL35">("compare_func");
    return find<Goal>(*tree, goal, found, compare);
}

}  // namespace

bool take_out(qel_avl& tree, Node& node) {
    Path path;
    descend(tree, node, path);
    if (path.end() != &node) return false;
    take_out_end(tree, path);
    return true;
}

}  // namespace qel::avl

using namespace qel;
using namespace qel::avl;

cerrno qel_avl_tree_init(qel_avl* tree, qel_avl_compare compare) {
    if (tree == nullptr) return bad_argument<"AVL1">("tree");
    if (compare == nullptr) return bad_argument<"AVL2">("compare_func");
    static_cast<void>(error_buffer());  // A tree works without the buffers.
    static_cast<void>(common_event_buffer());
    *tree = {nullptr, compare, 0, 0};
    return 0;
}

cerrno qel_avl_init(qel_avl_node* node) {
    if (node == nullptr) return bad_argument<"AVL27">("node");
    *node = {};
    return 0;
}

cerrno qel_avl_insert(qel_avl* tree, qel_avl_node* node) {
    if (tree == nullptr) return bad_argument<"AVL22">("tree");
    if (node == nullptr) return bad_argument<"AVL23">("new");
    if (tree->compare == nullptr) return bad_argument<"AVL37">("tree->compare");
    Path path;
    descend(*tree, *node, path);
    tree->height_changed = 0;
    if (path.end() != nullptr) return fatal(EEXIST);
    *node = {nullptr, nullptr, 0, QEL_AVL_THREADED};
    path.end() = node;
    tree->height_changed = path.carry_growth();
    ++tree->size;
    return 0;
}

cerrno qel_avl_delete(qel_avl* tree, const qel_avl_node* target, qel_avl_node** deleted) {
    if (tree == nullptr) return bad_argument<"AVL20">("tree");
    if (target == nullptr) return bad_argument<"AVL21">("target");
    Path path;
    descend(*tree, *target, path);
    tree->height_changed = 0;
    Node* gone = path.end() != nullptr ? take_out_end(*tree, path) : nullptr;
    if (deleted != nullptr) *deleted = gone;
    return gone != nullptr ? 0 : warning(EEXIST);
}

cerrno qel_avl_search(qel_avl* tree, const void* goal, qel_avl_node** found) {
    if (tree == nullptr) return bad_argument<"AVL36">("tree");
    return search<Node>(tree, goal, found, tree->compare);
}

cerrno qel_avl_search_custom(qel_avl* tree, const void* goal, qel_avl_node** found,
                             qel_avl_goal_compare compare) {
    return search<void>(tree, goal, found, compare);
}

cerrno qel_avl_tree_get_size(const qel_avl* tree, uint32_t* size) {
    if (size == nullptr) return bad_argument<"AVL24">("size");
    if (tree == nullptr) return bad_argument<"AVL25">("tree");
    *size = tree->size;
    return 0;
}

qel_avl_node* qel_avl_tree_get_root(const qel_avl* tree) {
    return tree != nullptr ? tree->root : nullptr;
}

bool qel_avl_is_threaded(const qel_avl_node* node) {
    return node != nullptr && (node->flags & QEL_AVL_THREADED) != 0;
}
