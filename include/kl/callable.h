#pragma once
// kl/callable.h: whatever can be called, kept for later: a lambda, a function, an object with operator().

#include <concepts>
#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace kl {

template <class Signature>
class Callable;

// Keeps what it was made of and calls it.  Unlike std::function it also takes what can only be moved, and it promises
// that two words need no allocation:
//
//     kl::Callable<void(int)> note = [this, name](int value) { values_[name] = value; };
//     if (note) note(7);
//
// Errors:    calling an empty one is a bug of the caller and ends the process.
// Ownership: owns what it was made of, and what that has captured.  It is moved, not copied.
// Threads:   as what it was made of.
// Cost:      one call through a pointer.  An allocation for more than two words, for what is aligned more strictly
//            than a pointer, and for what may throw when it is moved.
template <class Result, class... Args>
class Callable<Result(Args...)> {
 public:
  Callable() = default;
  Callable(std::nullptr_t) {}
  // NOLINTBEGIN(bugprone-forwarding-reference-overload): a Callable itself is moved
  template <class F>
  requires(!std::same_as<std::remove_cvref_t<F>, Callable> && !std::is_member_pointer_v<std::decay_t<F>> &&
           std::is_invocable_r_v<Result, std::decay_t<F>&, Args...>) Callable(F&& f) {
    using Kept = std::decay_t<F>;
    if constexpr (std::is_pointer_v<Kept>) {
      const Kept function = f;
      if (function == nullptr) return;
    }
    if constexpr (fits<Kept>()) ::new (words_) Kept(std::forward<F>(f));
    else ::new (words_) Kept*(new Kept(std::forward<F>(f)));
    work_ = &workOf<Kept>;
  }
  // NOLINTEND(bugprone-forwarding-reference-overload)
  Callable(Callable&& other) noexcept { takeFrom(other); }
  Callable& operator=(Callable&& other) noexcept {
    if (this != &other) {
      reset();
      takeFrom(other);
    }
    return *this;
  }
  ~Callable() { reset(); }

  explicit operator bool() const { return work_ != nullptr; }

  Result operator()(Args... args) { return work_->call(words_, std::forward<Args>(args)...); }

  // Does an F need no allocation?
  template <class F>
  static constexpr bool fits() {
    return sizeof(F) <= sizeof words_ && alignof(F) <= alignof(void*) &&  // NOLINT(misc-redundant-expression)
           std::is_nothrow_move_constructible_v<F>;
  }

 private:
  // The operations on the kept object, whose type only this table knows.
  struct Work {
    Result (*call)(void* words, Args&&... args);
    void (*move)(void* from, void* to) noexcept;  // and destroys what is left
    void (*destroy)(void* words) noexcept;
  };

  template <class F>
  static F& kept(void* words) {
    if constexpr (fits<F>()) return *std::launder(static_cast<F*>(words));
    else return **std::launder(static_cast<F**>(words));
  }

  template <class F>
  static constexpr Work workOf = {[](void* words, Args&&... args) -> Result {
                                    if constexpr (std::is_void_v<Result>)
                                      kept<F>(words)(std::forward<Args>(args)...);
                                    else return kept<F>(words)(std::forward<Args>(args)...);
                                  },
                                  [](void* from, void* to) noexcept {
                                    if constexpr (fits<F>()) {
                                      ::new (to) F(std::move(kept<F>(from)));
                                      std::destroy_at(&kept<F>(from));
                                    } else {
                                      ::new (to) F*(&kept<F>(from));
                                    }
                                  },
                                  [](void* words) noexcept {
                                    if constexpr (fits<F>()) std::destroy_at(&kept<F>(words));
                                    else delete &kept<F>(words);
                                  }};

  // The object that this was made of may look at it again while it is destroyed.
  void reset() {
    if (const Work* work = std::exchange(work_, nullptr)) work->destroy(words_);
  }

  void takeFrom(Callable& other) {
    if (other.work_ == nullptr) return;
    other.work_->move(other.words_, words_);
    work_ = std::exchange(other.work_, nullptr);
  }

  alignas(void*) std::byte words_[2 * sizeof(void*)];
  const Work* work_ = nullptr;
};

}  // namespace kl
