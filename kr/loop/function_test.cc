#include "kr/loop/function.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace kr {
namespace {

struct Counter {
  int value = 0;
  void add(int n) { value += n; }
  void sub(int n) { value -= n; }
};

int g_calls = 0;
void freeAdd(int n) { g_calls += n; }
void freeOther(int) {}

TEST(Function, BoundMethodsAreEqualByMethodAndObject) {
  Counter a, b;
  function<void(int)> f = bind<&Counter::add>(&a);
  function<void(int)> same = bind<&Counter::add>(&a);
  f(3);
  same(4);
  EXPECT_EQ(a.value, 7);
  EXPECT_TRUE(f == same);
  EXPECT_FALSE(f == function<void(int)>(bind<&Counter::sub>(&a)));
  EXPECT_FALSE(f == function<void(int)>(bind<&Counter::add>(&b)));
}

TEST(Function, FreeFunctionsAndCapturelessLambdasAreTheirTarget) {
  function<void(int)> f = &freeAdd, g = freeAdd;
  EXPECT_TRUE(f == g);
  EXPECT_FALSE(f == function<void(int)>(&freeOther));
  g_calls = 0;
  g(2);
  EXPECT_EQ(g_calls, 2);
  auto lambda = [](int n) { g_calls -= n; };
  EXPECT_TRUE(function<void(int)>(lambda) == function<void(int)>(lambda));
  EXPECT_FALSE(function<void(int)>(lambda) == f);
}

TEST(Function, StoredCallablesAreEqualOnlyToTheirCopies) {
  auto owned = std::make_shared<int>(0);
  auto lambda = [owned](int n) { *owned += n; };
  function<void(int)> f = lambda;
  function<void(int)> copy = f;
  function<void(int)> other = lambda;  // the same code, another storage
  EXPECT_TRUE(f == copy);
  EXPECT_FALSE(f == other);
  copy(5);
  EXPECT_EQ(*owned, 5);
  function<void(int)> moved = std::move(copy);
  EXPECT_TRUE(moved == f);
  EXPECT_FALSE(copy);  // NOLINT: moved from
  // The storage lives as long as its last copy.
  EXPECT_EQ(owned.use_count(), 4);  // ours, the lambda, f's block, other's block
  f = nullptr;
  moved = function<void(int)>();
  EXPECT_EQ(owned.use_count(), 3);
}

TEST(Function, EmptyAndReturnValues) {
  function<int(int)> empty;
  EXPECT_FALSE(empty);
  EXPECT_TRUE(empty == nullptr);
  EXPECT_TRUE(empty == function<int(int)>(nullptr));
  function<int(int)> twice = [](int x) { return 2 * x; };
  EXPECT_EQ(twice(21), 42);
  std::string text = "abc";
  function<size_t(const std::string&)> len = [](const std::string& s) { return s.size(); };
  EXPECT_EQ(len(text), 3u);
  EXPECT_DEATH(empty(1), "");
}

}  // namespace
}  // namespace kr
