// The bus, as tests have it.

#include <utility>

#include "kl/test.h"
#include "testkit/bus.h"

namespace kl::test {

TestBus::TestBus() : bus_(std::make_unique<Bus>()) {}
TestBus::TestBus(unsigned int service) : TestBus() { bus_->makeLooper(service); }
TestBus::~TestBus() = default;

void TestBus::add(unsigned int number, Handler& handler) {
  Looper* const looper = getLooper();
  if (looper == nullptr) bus_->complain("there is no Looper to add a handler to");
  else if (!looper->addHandler(number, &handler))
    bus_->complain("handler " + std::to_string(number) + " is there already");
  bus_->raise();
}

unsigned int TestBus::service() const { return bus_->service(); }

void TestBus::setSettings(const message& settings) { bus_->settings = settings; }

void TestBus::onLoader(unsigned int command, std::function<message(const message& request)> script) {
  bus_->loaderScripts[command] = std::move(script);
}

std::vector<unsigned int> TestBus::takeControls() { return std::exchange(bus_->controls, {}); }

void TestBus::runUntilIdle() { bus_->run(bus_->elapsed()); }

bool TestBus::runUntil(const std::function<bool()>& condition, int deadlineMs) {
  return bus_->runInRealTime(condition, deadlineMs);
}

unsigned int TestBus::now() const { return bus_->now(); }

void TestBus::advance(unsigned int ticks) { bus_->run(bus_->elapsed() + ticks); }

std::time_t TestBus::wallClock() const { return bus_->wallTime().tv_sec; }

void TestBus::setWallClock(std::time_t seconds) { bus_->setWallClock(seconds); }

TestBus::Leave TestBus::askToLeave() { return bus_->askToLeave(); }

bool TestBus::mayLeave() const { return bus_->mayLeave(); }

bool TestBus::wantsToLeave() const { return bus_->wantsToLeave(); }

const message& TestBus::leaveData() const { return bus_->leaveData; }

void TestBus::setLeaveData(const message& data) { bus_->leaveData = data; }

void TestBus::startAgain() { bus_->startAgain(); }

void TestBus::delay(unsigned int ticks) { bus_->wire.delay(ticks); }

void TestBus::cut(unsigned int bytes) { bus_->wire.cut(bytes); }

void TestBus::shrinkBuffers() { bus_->wire.shrinkBuffers(); }

void TestBus::disturb(unsigned int mostTicks) { bus_->disturb(mostTicks); }

unsigned int TestBus::seed() const { return bus_->seed(); }

void TestBus::loseLoader() { bus_->wire.hangUp(); }

}  // namespace kl::test
