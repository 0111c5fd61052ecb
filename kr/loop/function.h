// kr::function: the callback type of the event loop, with identity.
//
// The loop removes callbacks by value ("remove this hook", "cancel the timer
// that calls this"), so two callbacks must compare equal exactly when they
// are the same callback: the same target and the same bound object. A
// std::function cannot answer that; this small type can.
//
//   kr::function<void(int, unsigned)> a = &onReady;                 // a free function
//   kr::function<void(int, unsigned)> b = kr::bind<&Conn::onIo>(this);  // a member, bound
//   kr::function<void()> c = [this] { flush(); };                   // a lambda
//   kr::function<void()> d = c;                                     // d == c: one storage
//
// Identity:
//   - free functions (and lambdas without captures, which convert to one)
//     are equal when they are the same function;
//   - bound members are equal when method and object are the same, however
//     often kr::bind was called;
//   - any other callable (a lambda with captures, a functor) lives in one
//     reference-counted block; copies share it and compare equal, while two
//     separately wrapped callables never do, even if they look alike.
//
// Calling an empty function is a programming error (it aborts). Copies are
// cheap: a pointer copy and, for stored callables, a count. Single-threaded,
// as the loop is.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <type_traits>
#include <utility>

namespace kr {

template <class Signature>
class function;

// A method bound to an object: kr::bind<&Class::method>(object). Converts to
// any kr::function whose arguments the method accepts.
template <auto Method, class C>
struct bound_method {
  C* object;
};
template <auto Method, class C>
bound_method<Method, C> bind(C* object) {
  return {object};
}

namespace internal {
template <class T>
struct is_function_type : std::false_type {};
template <class S>
struct is_function_type<function<S>> : std::true_type {};
template <class T>
struct is_bound_method : std::false_type {};
template <auto M, class C>
struct is_bound_method<bound_method<M, C>> : std::true_type {};
}  // namespace internal

template <class R, class... A>
class function<R(A...)> {
 public:
  function() noexcept = default;
  function(std::nullptr_t) noexcept {}  // NOLINT: an empty callback
  function(R (*f)(A...)) noexcept {     // NOLINT: functions convert implicitly
    if (f) {
      ops_ = &kFreeOps;
      target_ = reinterpret_cast<void*>(f);
    }
  }
  template <auto Method, class C>
  function(bound_method<Method, C> b) noexcept  // NOLINT
      : ops_(&kMethodOps<Method, C>), target_(const_cast<void*>(static_cast<const void*>(b.object))) {}

  template <class F>
    requires(!internal::is_function_type<std::decay_t<F>>::value &&
             !internal::is_bound_method<std::decay_t<F>>::value && !std::is_pointer_v<std::decay_t<F>> &&
             !std::is_null_pointer_v<std::decay_t<F>> && std::is_invocable_r_v<R, std::decay_t<F>&, A...>)
  function(F&& f) {  // NOLINT
    using Fn = std::decay_t<F>;
    if constexpr (std::is_empty_v<Fn> && std::is_convertible_v<Fn, R (*)(A...)>) {
      // A lambda without captures is its function: copies of it and of the
      // same lambda object compare equal without any storage.
      ops_ = &kFreeOps;
      target_ = reinterpret_cast<void*>(static_cast<R (*)(A...)>(f));
    } else {
      ops_ = &kBoxOps<Fn>;
      target_ = new Box<Fn>{1, std::forward<F>(f)};
    }
  }

  function(const function& o) noexcept : ops_(o.ops_), target_(o.target_) { retain(); }
  function(function&& o) noexcept : ops_(o.ops_), target_(o.target_) {
    o.ops_ = nullptr;
    o.target_ = nullptr;
  }
  function& operator=(const function& o) noexcept {
    function copy(o);
    swap(copy);
    return *this;
  }
  function& operator=(function&& o) noexcept {
    function moved(std::move(o));
    swap(moved);
    return *this;
  }
  ~function() { release(); }

  void swap(function& o) noexcept {
    std::swap(ops_, o.ops_);
    std::swap(target_, o.target_);
  }

  R operator()(A... args) const {
    if (!ops_) std::abort();
    return ops_->invoke(target_, std::forward<A>(args)...);
  }
  explicit operator bool() const noexcept { return ops_ != nullptr; }

  // Same target and same bound object or storage (see above).
  friend bool operator==(const function& a, const function& b) noexcept {
    return a.ops_ == b.ops_ && a.target_ == b.target_;
  }
  friend bool operator==(const function& a, std::nullptr_t) noexcept { return !a; }

 private:
  struct Ops {
    R (*invoke)(void* target, A&&... args);
    void (*retain)(void* target);   // null: nothing to count
    void (*release)(void* target);  // null: nothing to free
  };
  template <class Fn>
  struct Box {
    unsigned long refs;
    Fn fn;
  };

  static R invokeFree(void* target, A&&... args) {
    return reinterpret_cast<R (*)(A...)>(target)(std::forward<A>(args)...);
  }
  template <auto Method, class C>
  static R invokeMethod(void* target, A&&... args) {
    return (static_cast<C*>(target)->*Method)(std::forward<A>(args)...);
  }
  template <class Fn>
  static R invokeBox(void* target, A&&... args) {
    return static_cast<Box<Fn>*>(target)->fn(std::forward<A>(args)...);
  }
  template <class Fn>
  static void retainBox(void* target) {
    ++static_cast<Box<Fn>*>(target)->refs;
  }
  template <class Fn>
  static void releaseBox(void* target) {
    auto* box = static_cast<Box<Fn>*>(target);
    if (--box->refs == 0) delete box;
  }

  static constexpr Ops kFreeOps{&invokeFree, nullptr, nullptr};
  template <auto Method, class C>
  static constexpr Ops kMethodOps{&invokeMethod<Method, C>, nullptr, nullptr};
  template <class Fn>
  static constexpr Ops kBoxOps{&invokeBox<Fn>, &retainBox<Fn>, &releaseBox<Fn>};

  void retain() noexcept {
    if (ops_ && ops_->retain) ops_->retain(target_);
  }
  void release() noexcept {
    if (ops_ && ops_->release) ops_->release(target_);
    ops_ = nullptr;
    target_ = nullptr;
  }

  const Ops* ops_ = nullptr;
  void* target_ = nullptr;
};

}  // namespace kr
