// AVL trees inside the library: what the files of plain and wrapped trees share.
#pragma once

#include <qel/avl.h>

#include <cerrno>
#include <cstddef>

#include "core/qel_codes.hpp"
#include "core/qel_prefetch.hpp"
#include "trace/qel_report.hpp"

namespace qel::avl {

using Node = qel_avl_node;

// A tree of this height has more nodes than the 32 bits of its size can count, by far.
inline constexpr std::size_t kMaxHeight = 64;

// What a refused call returns: null where a pointer is due, else 0xa0000016.
struct Refused {
    constexpr operator cerrno() const { return fatal(EINVAL); }
    constexpr operator int() const { return static_cast<int>(fatal(EINVAL)); }
    template <class T>
    constexpr operator T*() const {
        return nullptr;
    }
};

template <FixedText Label>
Refused bad_argument(const char* argument) {
    return failed<Label, "%s invalid argument \"%s\"">(Refused{}, argument);
}

// Asks for both children, of which the comparison that is to come takes one.
inline void want_children(const Node& node) {
    want_to_read(node.left);
    want_to_read(node.right);
}

inline bool is_equal(int order) {
    return order != QEL_AVL_BEFORE && order != QEL_AVL_AFTER;
}

// The link to follow after a comparison of 'node' with the goal that didn't find them equal. The links are
// indexed with the result: a choice between them would be compiled to a jump.
static_assert(offsetof(Node, left) == QEL_AVL_AFTER * sizeof(Node*) &&
              offsetof(Node, right) == QEL_AVL_BEFORE * sizeof(Node*));
inline Node*& way_on(Node& node, int order) {
    return reinterpret_cast<Node**>(&node)[order];
}

// Takes 'node' itself out of 'tree' and zeroes it; false when its key doesn't lead to it there.
bool take_out(qel_avl& tree, Node& node);

}  // namespace qel::avl
