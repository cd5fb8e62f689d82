#include "support/support.hpp"

#include <qel/thread.h>

#include <sys/prctl.h>
#include <sys/resource.h>

#include <cerrno>
#include <string>

namespace {

struct Attributes {
    qel_thread_attr record{};
    Attributes() { EXPECT_EQ(qel_thread_attr_init(&record), 0); }
    ~Attributes() { EXPECT_EQ(qel_thread_attr_destroy(&record), 0); }
    operator qel_thread_attr*() { return &record; }
};

struct Names {
    std::string library, kernel;
};

void* read_names(void* out) {
    char kernel[16]{};
    prctl(PR_GET_NAME, kernel);
    *static_cast<Names*>(out) = {qel_thread_get_name(), kernel};
    return out;
}

Names names_of_thread(const char* name) {
    Names names;
    pthread_t thread;
    void* result = nullptr;
    EXPECT_EQ(qel_thread_create(&thread, nullptr, read_names, &names, name, 7), 0);
    EXPECT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, &names);
    return names;
}

bool guard_ran = false;
void* seen_by_exit_hook = nullptr;

void* exit_under_guard(void* value) {
    struct Guard {
        ~Guard() { guard_ran = true; }
    } guard;
    qel_thread_exit(value);
    return nullptr;
}

}  // namespace

TEST(Threads, stack_follows_the_percentage) {
    Attributes attr;
    size_t size = 0;
    uint64_t base = attr.record.default_stack_size;
    for (uint32_t percent : {1u, 50u, 499u}) {
        ASSERT_EQ(qel_thread_attr_setstacksize(attr, percent), 0);
        ASSERT_EQ(qel_thread_attr_getstacksize(attr, &size), 0);
        EXPECT_EQ(size, (base * percent / 100 + 1024) / 1024 * 1024);
    }
    for (uint32_t percent : {0u, 500u}) EXPECT_EQ(qel_thread_attr_setstacksize(attr, percent), EINVAL);
    EXPECT_EQ(attr.record.stack_percent, 499u);
    attr.record.default_stack_size = 1000;
    EXPECT_EQ(qel_thread_attr_setstacksize(attr, 1), EINVAL) << "1 KiB is too small for the system";
}

TEST(Threads, attributes_keep_what_was_asked_and_refuse_the_rest) {
    Attributes attr;
    uint32_t word = 9;
    int32_t mode = 9;
    EXPECT_EQ(qel_thread_attr_setdetachstate(attr, 2), EINVAL);
    EXPECT_EQ(qel_thread_attr_setdetachstate(attr, QEL_THREAD_DETACHED), 0);
    EXPECT_EQ(qel_thread_attr_getdetachstate(attr, &word), 0);
    EXPECT_EQ(word, QEL_THREAD_DETACHED);
    for (uint32_t priority : {0u, 1u, 2u, 3u, 4u}) {
        EXPECT_EQ(qel_thread_attr_setsched_priority(attr, priority), priority < 4 ? 0 : EINVAL);
        EXPECT_EQ(qel_thread_attr_getsched_priority(attr, &word), 0);
        EXPECT_EQ(word, priority);
    }
    EXPECT_EQ(qel_thread_attr_setsched_mode(attr, 1), EINVAL);
    EXPECT_EQ(qel_thread_attr_setsched_mode(attr, QEL_THREAD_NON_PREEMPTIVE), EOPNOTSUPP);
    EXPECT_EQ(qel_thread_attr_getsched_mode(attr, &mode), 0);
    EXPECT_EQ(mode, QEL_THREAD_NON_PREEMPTIVE);

    qel_thread_attr gone{};
    pthread_t thread;
    EXPECT_EQ(qel_thread_attr_init(nullptr), EINVAL);
    EXPECT_EQ(qel_thread_attr_init(&gone), 0);
    EXPECT_EQ(qel_thread_attr_destroy(&gone), 0);
    EXPECT_EQ(qel_thread_attr_destroy(&gone), EINVAL);
    EXPECT_EQ(qel_thread_attr_setstacksize(&gone, 50), EINVAL);
    EXPECT_EQ(qel_thread_attr_getsched_mode(attr, nullptr), EINVAL);
    EXPECT_EQ(qel_thread_create(&thread, &gone, read_names, nullptr, nullptr, 0), EINVAL);
    EXPECT_EQ(qel_thread_create(nullptr, nullptr, read_names, nullptr, nullptr, 0), EINVAL);
}

TEST(Threads, a_name_reaches_the_library_and_the_kernel) {
    Names unnamed = names_of_thread(nullptr);
    EXPECT_EQ(unnamed.library, "qel_thread");
    EXPECT_EQ(unnamed.kernel, "qel_thread");
    Names named = names_of_thread("a name of more than fifteen");
    EXPECT_EQ(named.library, "a name of more than fifteen");
    EXPECT_EQ(named.kernel, "a name of more ");

    EXPECT_STREQ(qel_thread_get_name(), "");
    EXPECT_EQ(qel_thread_adopt("x", QEL_THREAD_NON_PREEMPTIVE), EOPNOTSUPP);
    EXPECT_EQ(qel_thread_adopt("first", QEL_THREAD_PREEMPTIVE), 0);
    EXPECT_EQ(qel_thread_adopt("main", QEL_THREAD_PREEMPTIVE), 0);
    EXPECT_STREQ(qel_thread_get_name(), "main");
}

TEST(Threads, a_detached_thread_may_end_before_its_creator_goes_on) {
    Attributes attr;
    qel_thread_attr_setdetachstate(attr, QEL_THREAD_DETACHED);
    int before = qel_test::thread_count();
    for (int i = 0; i < 200; ++i) {
        pthread_t thread;
        ASSERT_EQ(qel_thread_create(
                      &thread, attr, [](void* arg) { return arg; }, nullptr, nullptr, 0),
                  0);
    }
    EXPECT_TRUE(qel_test::eventually([&] { return qel_test::thread_count() <= before; }));
}

TEST(Threads, exit_runs_the_hook_and_unwinds_the_stack) {
    pthread_t thread;
    void* result = nullptr;
    qel_thread_set_exit_fn([](void* value) { seen_by_exit_hook = value; });
    ASSERT_EQ(qel_thread_create(&thread, nullptr, exit_under_guard, &thread, nullptr, 0), 0);
    ASSERT_EQ(pthread_join(thread, &result), 0);
    qel_thread_set_exit_fn(nullptr);
    EXPECT_EQ(result, &thread);
    EXPECT_EQ(seen_by_exit_hook, &thread);
    EXPECT_TRUE(guard_ran);
}

TEST(Threads, a_creation_hook_starts_through_the_exported_pointer) {
    qel_thread_set_create_fn([](pthread_t* out, const char* name, const qel_thread_attr*, void* record) {
        EXPECT_STREQ(name, "hooked");
        return pthread_create(out, nullptr, thread_start_kludge, record);
    });
    EXPECT_EQ(names_of_thread("hooked").kernel, "hooked");
    // A leak checker sees that the record of a refused thread is freed.
    qel_thread_set_create_fn([](pthread_t*, const char*, const qel_thread_attr*, void*) { return EPERM; });
    pthread_t thread;
    EXPECT_EQ(qel_thread_create(&thread, nullptr, read_names, nullptr, nullptr, 0), EPERM);
    qel_thread_set_create_fn(nullptr);

    Attributes attr;
    ASSERT_EQ(pthread_attr_setstacksize(attr.record.attr, size_t{1} << 46), 0);
    EXPECT_EQ(qel_thread_create(&thread, attr, read_names, nullptr, nullptr, 0), EAGAIN);
}

// Without a key a thread can't have a record: adopting fails, and a started thread ends through the exit
// hook.
QEL_ROLE(without_keys) {
    pthread_key_t key;
    while (pthread_key_create(&key, nullptr) == 0) {
    }
    if (qel_thread_adopt("x", QEL_THREAD_PREEMPTIVE) != EFAULT) return 1;
    pthread_t thread;
    bool ran = false;
    seen_by_exit_hook = &key;
    qel_thread_set_exit_fn([](void* value) { seen_by_exit_hook = value; });
    auto entry = [](void* arg) { return *static_cast<bool*>(arg) = true, arg; };
    if (qel_thread_create(&thread, nullptr, entry, &ran, nullptr, 0) != 0) return 2;
    void* result = &key;
    if (pthread_join(thread, &result) != 0 || result != nullptr || seen_by_exit_hook != nullptr) return 3;
    return ran ? 4 : 0;
}

TEST(Threads, a_process_without_keys_gets_errors_and_no_half_started_thread) {
    EXPECT_EQ(qel_test::Child("without_keys").wait(), 0);
}

TEST(Threads, processor_time_adds_user_and_system_time) {
    timespec spent{};
    rusage usage{};
    ASSERT_EQ(getrusage(RUSAGE_CHILDREN, &usage), 0);
    ASSERT_EQ(qel_thread_get_cputime(0xffffffff, &spent), 0);
    long told = (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1'000'000 + usage.ru_utime.tv_usec +
                usage.ru_stime.tv_usec;
    EXPECT_EQ(spent.tv_sec * 1'000'000 + spent.tv_nsec / 1000, told);
    EXPECT_LT(spent.tv_nsec, 1'000'000'000);
    EXPECT_EQ(qel_thread_get_cputime(0, &spent), 0);
    EXPECT_EQ(qel_thread_get_cputime(1, &spent), EOPNOTSUPP);
    EXPECT_EQ(qel_thread_get_cputime(5, nullptr), EINVAL);
}
