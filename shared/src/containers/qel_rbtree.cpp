// Red-black tree: making and ending one, the sentinel, the ready key functions, the counters' table.
//
// A tree and its full name are one allocation; nodes are the caller's, from the C library's allocator, and
// come back to it when the tree or its free list gives them up. The sentinel stands complete in the data
// segment. Making a tree restores it if an application wrote to it, and otherwise only looks: trees of other
// threads read it at that moment.
//
// Invariant: 'root' and 'free_list' are never null. Locks and threads: none; see qel/rbtree.h.
#include "containers/qel_rbtree.hpp"

#include <qel/base.h>

#include <array>
#include <cstdio>
#include <cstring>

#include "core/qel_owned.hpp"

namespace qel {
namespace {

constexpr RbNode kPristineNil{&rb_nil, &rb_nil, &rb_nil, &rb_nil, &rb_nil, &rb_nil, 0, 0, 0, kBlack, 0};

void restore_nil() {
    const RbNode& now = rb_nil;
    const bool links_hold = now.parent == &now && now.left == &now && now.right == &now &&
                            now.free_next == &now && now.next == &now && now.prev == &now;
    if (!links_hold || now.key != 0 || now.summary != 0 || now.size != 0 || now.color != kBlack)
        rb_nil = kPristineNil;
}

// A zeroed tree with its full name, or nothing when memory is short.
Owned<RbTree> allocate_tree(const char* name, const char* sub_name) {
    constexpr const char* kFormat = "%s %s RBTree";
    const int length = std::snprintf(nullptr, 0, kFormat, name, sub_name);
    if (length < 0) return {};
    const std::size_t text_size = static_cast<std::size_t>(length) + 1;
    Owned<RbTree> tree{static_cast<RbTree*>(
        qel_named_calloc_(1, sizeof(RbTree) + text_size, qel_tag_e_get_string(QEL_MEM_UTILS), 0))};
    if (!tree) return {};
    tree->full_name = reinterpret_cast<char*>(tree.get() + 1);
    (void)std::snprintf(tree->full_name, text_size, kFormat, name, sub_name);  // the size was just asked
    return tree;
}

// Gives 'node' back, or leaves it to who protects it.
void abandon(RbNode* node) {
    clear_links(*node);
    if (node->refs == 0) qel_named_free(node);
}

struct Counter {
    const char* text;
    std::uint64_t (*value)(const qel_rbtree&);
};
template <auto Member>
constexpr Counter counter(const char* text) {
    return {text, [](const qel_rbtree& tree) -> std::uint64_t { return tree.*Member; }};
}
constexpr std::array kCounters{
    counter<&qel_rbtree::active>("Active nodes"),
    counter<&qel_rbtree::free>("Free nodes"),
    counter<&qel_rbtree::inserted>("Inserted"),
    counter<&qel_rbtree::deleted>("Deleted"),
    counter<&qel_rbtree::rotations>("Rotations"),
    counter<&qel_rbtree::splices>("Splices"),
    counter<&qel_rbtree::released>("Released"),
    counter<&qel_rbtree::max_depth>("Maximum depth"),
    counter<&qel_rbtree::key_searches>("Key searches"),
    counter<&qel_rbtree::key_nodes>("Key nodes visited"),
    counter<&qel_rbtree::key_max_nodes>("Key nodes maximum"),
    counter<&qel_rbtree::int_searches>("Interval searches"),
    counter<&qel_rbtree::int_nodes>("Interval nodes visited"),
    counter<&qel_rbtree::int_max>("Interval nodes maximum"),
};

}  // namespace

constinit RbNode rb_nil = kPristineNil;

}  // namespace qel

using namespace qel;

qel_rbtree* qel_rbtree_create(const char* owner, const char* name, const char* sub_name,
                              qel_rbtree_print_key print_key) {
    if (owner == nullptr || name == nullptr || sub_name == nullptr) return nullptr;
    restore_nil();
    Owned<RbTree> tree = allocate_tree(name, sub_name);
    if (!tree) return nullptr;
    tree->root = tree->free_list = nil();
    tree->print_key = print_key == nullptr ? qel_rbtree_key_print_ulong : print_key;
    tree->key32 = 1;
    tree->owner = owner;
    tree->name = name;
    tree->sub_name = sub_name;
    tree->debug = &tree->debug_byte;
    return tree.release();
}

void qel_rbtree_non_32bit(qel_rbtree* tree, qel_rbtree_key_max key_max, qel_rbtree_key_compare key_compare) {
    if (tree == nullptr || key_max == nullptr || key_compare == nullptr) return;
    tree->key32 = 0;
    tree->key_max = key_max;
    tree->key_compare = key_compare;
}

qel_rbtree* qel_rbtree_destroy(qel_rbtree* tree) {
    if (tree == nullptr) return nullptr;
    for (RbNode* node = qel_rbtree_first_node(tree); node != nullptr;) {
        RbNode* next = node->next;
        abandon(node);
        node = next;
    }
    for (RbNode* node = tree->free_list; node != nil();) {
        RbNode* next = node->free_next;
        abandon(node);
        node = next;
    }
    qel_named_free(&inner(tree));
    return nullptr;
}

uint32_t qel_rbtree_get_size(const qel_rbtree* tree) {
    return tree == nullptr ? UINT32_MAX : tree->active;
}

void qel_rbtree_stats(const qel_rbtree* tree, const char* title) {
    if (tree == nullptr) return;
    (void)qel_cli_printf("\n%s: %s", tree->full_name, title == nullptr ? "" : title);
    for (const Counter& row : kCounters)
        (void)qel_cli_printf("\n  %-24s %llu", row.text, static_cast<unsigned long long>(row.value(*tree)));
    (void)qel_cli_printf("\n");
}

void qel_rbtree_set_debug_flag(qel_rbtree* tree, bool on) {
    if (tree == nullptr) return;
    if (tree->debug == nullptr) tree->debug = &inner(tree).debug_byte;
    *tree->debug = on ? 1 : 0;
}

char* qel_rbtree_key_print_ulong(char* buffer, uint64_t key) {
    const auto low = static_cast<std::uint32_t>(key);
    if (buffer != nullptr) (void)std::snprintf(buffer, QEL_RBTREE_KEY_TEXT_SIZE, "#%u, %08x", low, low);
    return buffer;
}

char* qel_rbtree_key_print_ulonglong(char* buffer, uint64_t key) {
    const unsigned long long upper = key >> 32;
    const unsigned long long lower = key & UINT32_MAX;
    if (buffer != nullptr)
        (void)std::snprintf(buffer, QEL_RBTREE_KEY_TEXT_SIZE, "#%llu#%llu, %08llx%08llx", upper, lower, upper,
                            lower);
    return buffer;
}

void qel_rbtree_key_max_ulonglong(uint64_t* out, uint64_t a, uint64_t b) {
    if (out != nullptr) *out = std::max(a, b);
}

int qel_rbtree_key_compare_ulonglong(uint64_t a, uint64_t b) {
    return a < b ? -1 : a > b;
}
