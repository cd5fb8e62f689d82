// Owners: types whose destructor gives back what they hold.
//
// Owned<T> holds named memory, Unique<> anything with a closing function, Undo a step that must be taken back
// unless its success is confirmed with keep(). Ownership passes by std::move and shows in the signature.
//
// The destructors run also while a thread that called pthread_exit() or was cancelled unwinds its stack, so
// the library is built with unwinding on although nothing in it throws.
#pragma once

#include <qel/mem.h>

#include <cstddef>
#include <cstdint>
#include <new>
#include <type_traits>
#include <utility>

namespace qel {

// Holds 'Value', which 'Close' gives back; a value equal to 'Empty' is nothing.
template <class Value, auto Close, Value Empty = Value{}>
class Unique {
  public:
    constexpr Unique() = default;
    explicit constexpr Unique(Value value) : value_(value) {}
    Unique(Unique&& other) : value_(other.release()) {}
    Unique& operator=(Unique&& other) {
        if (this != &other) reset(other.release());
        return *this;
    }
    ~Unique() { reset(); }

    explicit operator bool() const { return value_ != Empty; }
    Value get() const { return value_; }
    Value release() { return std::exchange(value_, Empty); }
    void reset(Value value = Empty) {
        Value old = std::exchange(value_, value);
        if (old != Empty) Close(old);
    }

  private:
    Value value_ = Empty;
};

// A plain record in named memory. Records are plain data: they are zeroed, never constructed or destroyed.
template <class T>
class Owned {
    static_assert(std::is_trivially_destructible_v<T>,
                  "named memory is given back without a destructor call");

  public:
    constexpr Owned() = default;
    explicit constexpr Owned(T* record) : record_(record) {}
    Owned(Owned&& other) : record_(other.release()) {}
    Owned& operator=(Owned&& other) {
        if (this != &other) reset(other.release());
        return *this;
    }
    ~Owned() { reset(); }

    explicit operator bool() const { return record_ != nullptr; }
    T* get() const { return record_; }
    T* operator->() const { return record_; }
    T& operator*() const { return *record_; }
    T* release() { return std::exchange(record_, nullptr); }
    void reset(T* record = nullptr) { qel_named_free(std::exchange(record_, record)); }

  private:
    T* record_ = nullptr;
};

// 'count' zeroed records of T under 'tag', or an empty owner when memory is short.
template <class T>
Owned<T> allocate_zeroed(qel_tag_e tag, std::size_t count = 1) {
    return Owned<T>{static_cast<T*>(qel_named_calloc_(count, sizeof(T), qel_tag_e_get_string(tag), 0))};
}

// Takes a step back unless keep() confirms it. Stands where the step succeeded.
template <class Step>
class [[nodiscard]] Undo {
  public:
    explicit Undo(Step step) : step_(std::move(step)) {}
    Undo(const Undo&) = delete;
    Undo& operator=(const Undo&) = delete;
    ~Undo() {
        if (armed_) step_();
    }
    void keep() { armed_ = false; }

  private:
    Step step_;
    bool armed_ = true;
};

}  // namespace qel
