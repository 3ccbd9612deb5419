#pragma once
// kl/bind.h: turns a member function into the plain callback that the loop and the handlers take.

#include <utility>

namespace kl {
namespace detail {

template <class T, auto Member, class... Args>
void callMember(void* object, Args... args) {
  (static_cast<T*>(object)->*Member)(std::forward<Args>(args)...);
}

template <class T, auto Member, class C, bool NoExcept, class... Args>
constexpr auto callbackFor(void (C::*)(Args...) noexcept(NoExcept)) -> void (*)(void*, Args...) {
  return &callMember<T, Member, Args...>;
}

template <class T, auto Member, class C, bool NoExcept, class... Args>
constexpr auto callbackFor(void (C::*)(Args...) const noexcept(NoExcept)) -> void (*)(void*, Args...) {
  return &callMember<T, Member, Args...>;
}

}  // namespace detail

// The function pointer that calls `Member` on the T that the context word points to:
//
//     loop.addTimer(this, kl::bind<Netif, &Netif::onTick>(), 100);
//     loop.addSocket(fd, this, kl::bind<Netif, &Netif::onData>(), POLLIN);
//     loop.addSighandler(SIGHUP, this, kl::bind<Netif, &Netif::onHangup>(), true);
//
// for the members onTick(), onData(int fd, unsigned int revents) and onHangup(int sig).  A reply's member is
// onReply(const kl::message& reply, const kl::message& data).
//
// Each use of one T and one Member gives the same pointer, so it also serves to remove what it added.
//
// Errors:    a member that does not return void, or that is static, does not compile.
// Ownership: none; the object is borrowed until the callback has run or was removed.
// Threads:   whatever holds for the member.
// Cost:      no allocation and no state: a pointer known at compile time, one direct call inside.
//
// Needs: the context word handed in beside it is a T* (not a pointer to a base or a derived class of T).
template <class T, auto Member>
constexpr auto bind() {
  return detail::callbackFor<T, Member>(Member);
}

}  // namespace kl
