#include "util/IterationHelpers.h"

#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/LogCapture.h"

namespace pc {
namespace {

using namespace IterationHelpers;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using test::LogCapture;

Array numbers(int count) {
  Array array;
  for (int i = 0; i < count; ++i) array.add(i);
  return array;
}

bool above2(const Value& element, void*) { return element.intValue() > 2; }

// Counts its calls in the int the context points to.
bool countedIsEven(const Value& element, std::size_t, void* calls) {
  ++*static_cast<int*>(calls);
  return element.intValue() % 2 == 0;
}

TEST(ArrayIteration, MapKeepsNonNullResultsInOrder) {
  EXPECT_EQ(qvt_map(numbers(5),
                    [](const Value& e, void*) { return e.intValue() % 2 ? Value() : Value(e.intValue() * 10); }),
            (Array{0, 20, 40}));
}

TEST(ArrayIteration, ConjunctionAndDisjunctionStopEarly) {
  int calls = 0;
  EXPECT_FALSE(conjunction(Array{2, 4, 5, 6}, countedIsEven, &calls));
  EXPECT_EQ(calls, 3);
  calls = 0;
  EXPECT_TRUE(disjunction(Array{1, 3, 4, 5}, countedIsEven, &calls));
  EXPECT_EQ(calls, 3);
  EXPECT_TRUE(qvt_iterWhileTrue(Array{}, countedIsEven, &calls));
  EXPECT_FALSE(disjunction(Array{}, countedIsEven, &calls));
}

TEST(ArrayIteration, UnqueueRemovesTheTrueTail) {
  const struct {
    Array array;
    bool all;
    Array left;
  } cases[] = {{{1, 2, 3, 4}, false, {1, 2}}, {{5, 6}, true, {}}};
  for (const auto& c : cases) {
    Array array = c.array.copy();
    EXPECT_EQ(unqueueWhileTrue(array, above2), c.all);
    EXPECT_EQ(array, c.left);
  }
}

TEST(DictionaryIteration, FindAndUnqueue) {
  Dictionary dictionary{{"a", 1}, {"b", 3}, {"c", 5}, {"d", 0}};
  EXPECT_EQ(qvt_find(dictionary, [](const Value& key, const Value& value, void*) {
              return value.intValue() > 2 ? key : Value();
            }),
            Value("b"));

  const auto positive = [](const Value&, const Value& value, void*) { return value.intValue() > 0; };
  Dictionary queue{{"a", 1}, {"b", 2}, {"c", 0}, {"d", 4}};
  EXPECT_FALSE(unqueueWhileTrue(queue, positive));
  EXPECT_EQ(queue, (Dictionary{{"c", 0}, {"d", 4}}));
  EXPECT_FALSE(qvt_iterWhileTrue(queue, positive));
}

class BatchedIterators : public ::testing::TestWithParam<int> {};

// Callbacks may change what they walk: each sees its own copy of the element
// (the array's storage moves when it grows), and the walk covers the
// elements there at the start.
TEST(ArrayIteration, CallbacksMayGrowOrShrinkTheArray) {
  Array array{"a", "b", "c"};
  struct Walk {
    Array array;
    std::vector<std::string> seen;
  } walk{array, {}};
  qvt_iter(array, [](const Value& element, std::size_t, void* context) {
    auto& w = *static_cast<Walk*>(context);
    for (int i = 0; i < 100; ++i) w.array.add(i);  // moves the storage under `element`
    w.seen.push_back(element.string());
  }, &walk);
  EXPECT_EQ(walk.seen, (std::vector<std::string>{"a", "b", "c"}));

  array = Array{"a", "b", "c"};
  walk = Walk{array, {}};
  EXPECT_TRUE(qvt_iterWhileTrue(array, [](const Value& element, std::size_t, void* context) {
    auto& w = *static_cast<Walk*>(context);
    w.array.removeLast();
    w.seen.push_back(element.string());
    return true;
  }, &walk));
  EXPECT_EQ(walk.seen, (std::vector<std::string>{"a", "b"}));

  array = Array{1, 2, 3, 4};
  EXPECT_TRUE(unqueueWhileTrue(array, [](const Value& element, void* context) {
    static_cast<Array*>(context)->removeAll();
    return element.intValue() > 0;
  }, &array));
  EXPECT_TRUE(array.empty());
}

TEST(DictionaryIteration, AHandleWithoutStorageReportsSetEnum) {
  Dictionary moved{{"a", 1}};
  const Dictionary taken = std::move(moved);
  LogCapture log;
  int calls = 0;
  qvt_iter(moved, [](const Value&, const Value&, void* c) { ++*static_cast<int*>(c); }, &calls);
  EXPECT_EQ(calls, 0);
  EXPECT_THAT(log.messages(), ElementsAre(HasSubstr("\"setEnum\"")));
  EXPECT_EQ(taken.count(), 1u);
}

TEST_P(BatchedIterators, ArrayReadsEverythingInBatchesOf20) {
  const int count = GetParam();
  const Array array = numbers(count);
  QVTFastArrayIteratorState state;
  QVTFastArrayIteratorInit(&state, array);
  std::vector<std::size_t> fetches;
  int expected = 0;
  while (const Value* element = QVTFastArrayIteratorNext(&state)) {
    if (state.batchPosition == 1) fetches.push_back(state.batchSize);
    EXPECT_EQ(element->intValue(), expected++);
  }
  EXPECT_EQ(expected, count);
  EXPECT_EQ(QVTFastArrayIteratorNext(&state), nullptr);
  // 45 elements come in fetches of 20, 20 and 5.
  ASSERT_EQ(fetches.size(), static_cast<std::size_t>((count + 19) / 20));
  for (std::size_t i = 0; i < fetches.size(); ++i)
    EXPECT_EQ(fetches[i], std::min<std::size_t>(20, count - 20 * i));
}

// The walk covers the elements below the end fixed at the start: appending
// (which moves the array's storage) adds nothing to it, shrinking cuts it.
TEST(BatchedIterators, ArrayMayChangeWhileItIsWalked) {
  Array array = numbers(45);
  QVTFastArrayIteratorState state;
  QVTFastArrayIteratorInit(&state, array);
  int expected = 0;
  while (const Value* element = QVTFastArrayIteratorNext(&state)) {
    EXPECT_EQ(element->intValue(), expected++);
    if (expected == 1)
      for (int i = 0; i < 1000; ++i) array.add(fmt::format("appended {}", i));
  }
  EXPECT_EQ(expected, 45);

  array = numbers(45);
  QVTFastArrayIteratorInit(&state, array);
  expected = 0;
  while (const Value* element = QVTFastArrayIteratorNext(&state)) {
    EXPECT_EQ(element->intValue(), expected++);
    if (expected == 15) array.removeRange(30, 15);
  }
  EXPECT_EQ(expected, 30);
}

TEST_P(BatchedIterators, DictionaryReadsParallelKeysAndValues) {
  const int count = GetParam();
  Dictionary dictionary;
  for (int i = 0; i < count; ++i) dictionary.set(fmt::format("k{}", i), i);
  QVTFastDictionaryIteratorState state;
  QVTFastDictionaryIteratorInit(&state, dictionary);
  const Value* key = nullptr;
  const Value* value = nullptr;
  int expected = 0;
  while (QVTFastDictionaryIteratorNext(&state, &key, expected % 2 ? nullptr : &value)) {
    EXPECT_EQ(key->string(), fmt::format("k{}", expected));
    if (expected % 2 == 0) {
      EXPECT_EQ(value->intValue(), expected);
    }
    ++expected;
  }
  EXPECT_EQ(expected, count);
  EXPECT_FALSE(QVTFastDictionaryIteratorNext(&state, nullptr, nullptr));
}

INSTANTIATE_TEST_SUITE_P(Lengths, BatchedIterators, ::testing::Values(0, 20, 45));

}  // namespace
}  // namespace pc
