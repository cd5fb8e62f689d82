// Context databases: what applications hang on interfaces, an AVL tree by interface handle each.
//
// All databases are in one list, so that a deleted interface leaves all of them, and so that a pointer to a
// database that was destroyed is told from one to a database: it isn't followed before it is found there.
//
// Locks: if_gbl_mutex guards the list and the trees. Free handlers run without it, but for those that a
// deleted interface calls, which must not come back here. Threads: any. Restart: nothing stays.
#include <qel/avl.h>
#include <qel/base.h>
#include <qel/if_event.h>
#include <qel/queue.h>

#include <cerrno>

#include "core/qel_owned.hpp"
#include "net/qel_if.hpp"

struct qel_if_ctx_db {
    qel_dqueue link;  // in ctx_db_list_anchor
    qel_if_ctx_free_handler free_handler;
    bool destroying;
    qel_avl entries;
};

namespace qel::interfaces {
namespace {

using Database = qel_if_ctx_db;

struct Entry {
    qel_avl_node node;
    std::uint64_t ifh;
    void* context;
};

constinit qel_dqueue ctx_db_list_anchor QEL_GUARDED_BY(if_gbl_mutex){};

int ctx_avl_comp(const qel_avl_node* a, const qel_avl_node* b) {
    const std::uint64_t left = reinterpret_cast<const Entry*>(a)->ifh;
    const std::uint64_t right = reinterpret_cast<const Entry*>(b)->ifh;
    return left == right ? QEL_AVL_EQUAL : left < right;
}

template <class Visit>
void for_each_locked(Visit visit) QEL_REQUIRES(if_gbl_mutex) {
    if (ctx_db_list_anchor.next == nullptr) return;
    for (qel_dqueue* link = qel_dqueue_get_next(&ctx_db_list_anchor); link != &ctx_db_list_anchor;
         link = qel_dqueue_get_next(link))
        visit(static_cast<Database*>(qel_dqueue_get_parent(link)));
}

bool is_database_locked(const Database* wanted) QEL_REQUIRES(if_gbl_mutex) {
    bool found = false;
    for_each_locked([&](const Database* db) { found |= db == wanted; });
    return found;
}

void list_locked(Database& db) QEL_REQUIRES(if_gbl_mutex) {
    if (ctx_db_list_anchor.next == nullptr) qel_dqueue_init(&ctx_db_list_anchor, nullptr);
    qel_dqueue_init(&db.link, &db);
    qel_dqueue_insert(&db.link, qel_dqueue_get_prev(&ctx_db_list_anchor));
}

bool is_empty(const Database& db) {
    return qel_avl_tree_get_root(&db.entries) == nullptr;
}

Entry* find_locked(Database& db, std::uint64_t ifh) QEL_REQUIRES(if_gbl_mutex) {
    const Entry goal{{}, ifh, nullptr};
    qel_avl_node* found = nullptr;
    if (is_empty(db) || qel_avl_search(&db.entries, &goal, &found) != 0) return nullptr;
    return reinterpret_cast<Entry*>(found);
}

// Takes an entry out of its tree; null stays null.
Owned<Entry> take_out_locked(Database& db, Entry* entry) QEL_REQUIRES(if_gbl_mutex) {
    if (entry != nullptr)
        static_cast<void>(qel_avl_delete(&db.entries, &entry->node, nullptr));  // it is there
    return Owned<Entry>{entry};
}

Owned<Entry> take_first_locked(Database& db) QEL_REQUIRES(if_gbl_mutex) {
    if (is_empty(db)) return {};
    return take_out_locked(db, reinterpret_cast<Entry*>(qel_avl_get_first(&db.entries)));
}

void hand_back(Database& db, const Entry& entry) {
    if_event<"IFEVENT200", "%s: ctx removed, ctx_db=%p, ifh=%x">(&db, static_cast<std::uint32_t>(entry.ifh));
    db.free_handler(entry.ifh, &db, entry.context, &db);
}

cerrno remove(Database* db, std::uint64_t ifh, Owned<Entry> entry, bool report_missing) {
    if (entry) {
        hand_back(*db, *entry);
        return 0;
    }
    if (report_missing)
        report<"IFERROR200", "ERROR: %s: ctx not found, ctx_db=%p, ifh=0x%x">(
            db, static_cast<std::uint32_t>(ifh));
    return fatal(ENOENT);
}

cerrno insert(Database* db, std::uint64_t ifh, void* context) {
    Owned<Entry> entry = allocate_zeroed<Entry>(QEL_MEM_INTF);
    if (!entry) return no_memory<"IFERROR201">();
    entry->ifh = ifh;
    entry->context = context;
    {
        Locked lock{if_gbl_mutex};
        if (!is_database_locked(db) || db->destroying) return invalid_arguments<"IFERROR202">();
        if (find_locked(*db, ifh) != nullptr) return unexpected_code<"IFERROR203">(fatal(EEXIST));
        static_cast<void>(qel_avl_insert(&db->entries, &entry.release()->node));  // nothing equal is there
    }
    if_event<"IFEVENT201", "%s: ctx set, ctx_db=%p, ifh=%x, ctx=%p">(db, static_cast<std::uint32_t>(ifh),
                                                                     context);
    return 0;
}

// Gives the handle of the entry that find(db) gives, 0 for none.
template <class Find>
cerrno give_handle(Database* db, std::uint64_t* ifh, Find find) {
    if (ifh == nullptr) return invalid_arguments<"IFERROR204">();
    Locked lock{if_gbl_mutex};
    if (!is_database_locked(db)) return invalid_arguments<"IFERROR205">();
    const auto* entry = is_empty(*db) ? nullptr : reinterpret_cast<const Entry*>(find(*db));
    *ifh = entry == nullptr ? 0 : entry->ifh;
    return 0;
}

// Of a free handler that runs because its interface went, or of nobody.
cerrno remove_locked(Database* db, std::uint64_t ifh, bool report_missing) QEL_REQUIRES(if_gbl_mutex) {
    if (!is_database_locked(db)) return invalid_arguments<"IFERROR206">();
    return remove(db, ifh, take_out_locked(*db, find_locked(*db, ifh)), report_missing);
}

cerrno remove_unlocked(Database* db, std::uint64_t ifh, bool report_missing) {
    Owned<Entry> entry;
    {
        Locked lock{if_gbl_mutex};
        if (!is_database_locked(db)) return invalid_arguments<"IFERROR207">();
        entry = take_out_locked(*db, find_locked(*db, ifh));
    }
    return remove(db, ifh, std::move(entry), report_missing);
}

}  // namespace
}  // namespace qel::interfaces

using namespace qel;
using namespace qel::interfaces;

cerrno qel_if_ctx_create_db(const char* name, qel_if_ctx_free_handler free_handler, qel_if_ctx_db** db) {
    qel_check_not_interrupt_path();
    if (name == nullptr || free_handler == nullptr || db == nullptr) return invalid_arguments<"IFERROR208">();
    Owned<Database> made = allocate_zeroed<Database>(QEL_MEM_INTF);
    if (!made) return no_memory<"IFERROR209">();
    made->free_handler = free_handler;
    if (cerrno error = qel_avl_tree_init(&made->entries, ctx_avl_comp); error != 0) return error;
    {
        Locked lock{if_gbl_mutex};
        list_locked(*made);
    }
    if_event<"IFEVENT202", "%s: ctx db created, name=%s, ctx_db=%p, freeh=%p">(name, made.get(),
                                                                               address_of(free_handler));
    *db = made.release();
    return 0;
}

cerrno qel_if_ctx_destroy_db(qel_if_ctx_db* db) {
    qel_check_not_interrupt_path();
    {
        Locked lock{if_gbl_mutex};
        if (!is_database_locked(db) || db->destroying) return invalid_arguments<"IFERROR210">();
        db->destroying = true;
        while (Owned<Entry> entry = take_first_locked(*db))
            lock.while_unlocked([&] { db->free_handler(entry->ifh, db, entry->context, db); });
        qel_dqueue_remove(&db->link);
    }
    if_event<"IFEVENT203", "%s: ctx db destroyed, ctx_db=%p">(db);
    Owned<Database> owned{db};
    return 0;
}

cerrno qel_if_ctx_set(qel_if_ctx_db* db, uint64_t ifh, void* context) {
    qel_check_not_interrupt_path();
    if (db == nullptr || ifh == 0) return invalid_arguments<"IFERROR211">();
    return context == nullptr ? remove_unlocked(db, ifh, true) : insert(db, ifh, context);
}

cerrno qel_if_ctx_get(qel_if_ctx_db* db, uint64_t ifh, void** context) {
    qel_check_not_interrupt_path();
    if (db == nullptr || ifh == 0 || context == nullptr) return invalid_arguments<"IFERROR212">();
    Locked lock{if_gbl_mutex};
    if (!is_database_locked(db)) return invalid_arguments<"IFERROR213">();
    const Entry* entry = find_locked(*db, ifh);
    if (entry == nullptr) return fatal(ENOENT);
    *context = entry->context;
    return 0;
}

cerrno qel_if_ctx_remove(qel_if_ctx_db* db, uint64_t ifh, int lock_is_held,
                         int report) QEL_NO_THREAD_SAFETY_ANALYSIS {
    qel_check_not_interrupt_path();
    if (db == nullptr || ifh == 0) return invalid_arguments<"IFERROR214">();
    return lock_is_held != 0 ? remove_locked(db, ifh, report != 0) : remove_unlocked(db, ifh, report != 0);
}

cerrno qel_if_ctx_remove_by_if_handle(uint64_t ifh) {
    qel_check_not_interrupt_path();
    if (ifh == 0) return invalid_interface<"IFERROR215">(ifh);
    Locked lock{if_gbl_mutex};
    for_each_locked([ifh](Database* db) QEL_REQUIRES(if_gbl_mutex) {
        static_cast<void>(remove_locked(db, ifh, false));  // most have none
    });
    return 0;
}

cerrno qel_if_ctx_db_get_first(qel_if_ctx_db* db, uint64_t* ifh) {
    qel_check_not_interrupt_path();
    return give_handle(db, ifh, [](Database& found) { return qel_avl_get_first(&found.entries); });
}

cerrno qel_if_ctx_db_get_next(qel_if_ctx_db* db, uint64_t previous, uint64_t* ifh) {
    qel_check_not_interrupt_path();
    const Entry goal{{}, previous, nullptr};
    return give_handle(db, ifh,
                       [&goal](Database& found) { return qel_avl_get_next(&found.entries, &goal.node); });
}
