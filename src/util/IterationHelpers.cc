#include "util/IterationHelpers.h"

#include <algorithm>

#include "async/Log.h"

namespace pc {

namespace IterationHelpers {

Array qvt_map(const Array& array, ArrayMapFunction function, void* context) {
  return qvt_mapWithSelector(array,
                             [&](const Value& element) { return function(element, context); });
}

Array qvt_mapWithSelector(const Array& array, const std::function<Value(const Value&)>& selector) {
  Array result;
  for (const Value& element : array) {
    Value mapped = selector(element);
    if (!mapped.isNull()) result.add(std::move(mapped));
  }
  return result;
}

namespace {

// The callbacks may change the array they walk: each gets its own copy of the
// element (a reference into the array would dangle once the array grows), and
// the walk covers the elements there at the start that are still there.
template <class Call>
bool walkWhile(const Array& array, bool whileResult, Call call) {
  const std::size_t end = array.count();
  for (std::size_t i = 0; i < std::min(end, array.count()); ++i) {
    const Value element = array[i];
    if (call(element, i) != whileResult) return !whileResult;
  }
  return whileResult;
}

}  // namespace

void qvt_iter(const Array& array, ArrayIterFunction function, void* context) {
  walkWhile(array, true, [&](const Value& element, std::size_t i) {
    function(element, i, context);
    return true;
  });
}

bool qvt_iterWhileTrue(const Array& array, ArrayTestFunction function, void* context) {
  return walkWhile(array, true, [&](const Value& element, std::size_t i) {
    return function(element, i, context);
  });
}

bool conjunction(const Array& array, ArrayTestFunction function, void* context) {
  return qvt_iterWhileTrue(array, function, context);
}

bool disjunction(const Array& array, ArrayTestFunction function, void* context) {
  return walkWhile(array, false, [&](const Value& element, std::size_t i) {
    return function(element, i, context);
  });
}

bool unqueueWhileTrue(Array& array, ArrayUnqueueFunction function, void* context) {
  std::size_t start = array.count();
  bool result = true;
  while (start > 0 && start <= array.count()) {
    const Value element = array[start - 1];  // the callback may change the array
    if (!(result = function(element, context))) break;
    --start;
  }
  start = std::min(start, array.count());
  array.removeRange(start, array.count() - start);
  return result;
}

void qvt_iter(const Set& set, SetIterFunction function, void* context) {
  for (const Value& element : set) function(element, context);
}

bool qvt_iterWhileTrue(const Set& set, SetTestFunction function, void* context) {
  for (const Value& element : set)
    if (!function(element, context)) return false;
  return true;
}

Set choose(const Set& set, SetTestFunction function, void* context) {
  Set chosen;
  for (const Value& element : set)
    if (function(element, context)) chosen.add(element);
  return chosen;
}

void qvt_iter(const Dictionary& dictionary, DictionaryIterFunction function, void* context) {
  // A handle without storage (moved from) has no keys to enumerate.
  if (!detail::checkCondition(dictionary.hasStorage(), "setEnum", __PRETTY_FUNCTION__, __LINE__))
    return;
  for (const Value& key : dictionary.keys()) function(key, dictionary.get(key), context);
}

bool qvt_iterWhileTrue(const Dictionary& dictionary, DictionaryTestFunction function,
                       void* context) {
  // Indexes rather than iterators: the callback may add entries.
  for (std::size_t i = 0; i < dictionary.count(); ++i) {
    const auto [key, value] = dictionary.begin()[static_cast<std::ptrdiff_t>(i)];
    if (!function(key, value, context)) return false;
  }
  return true;
}

Value qvt_find(const Dictionary& dictionary, DictionaryFindFunction function, void* context) {
  for (const auto& [key, value] : dictionary) {
    Value found = function(key, value, context);
    if (!found.isNull()) return found;
  }
  return {};
}

bool unqueueWhileTrue(Dictionary& dictionary, DictionaryTestFunction function, void* context) {
  for (const Value& key : dictionary.keys()) {
    const Value* value = dictionary.find(key);
    if (!value) continue;  // removed by an earlier call
    if (!function(key, *value, context)) return false;
    dictionary.remove(key);
  }
  return true;
}

}  // namespace IterationHelpers

namespace {

// The next batch of [index, end): how many slots to fill, at most a batch.
std::size_t nextBatchLength(std::size_t index, std::size_t end) {
  return index < end ? std::min(end - index, kQVTFastIteratorBatchSize) : 0;
}

}  // namespace

void QVTFastArrayIteratorInit(QVTFastArrayIteratorState* state, const Array& array) {
  *state = QVTFastArrayIteratorState{};
  state->array = array;
  state->end = array.count();
}

const Value* QVTFastArrayIteratorNext(QVTFastArrayIteratorState* state) {
  if (state->batchPosition == state->batchSize) {
    // The array may have shrunk since initialisation; never read past it.
    const std::size_t length =
        nextBatchLength(state->index, std::min(state->end, state->array.count()));
    if (length == 0) return nullptr;
    const std::vector<Value>& values = state->array.values();
    for (std::size_t i = 0; i < length; ++i) state->batch[i] = values[state->index + i];
    state->index += length;
    state->batchSize = length;
    state->batchPosition = 0;
  }
  return &state->batch[state->batchPosition++];
}

void QVTFastDictionaryIteratorInit(QVTFastDictionaryIteratorState* state,
                                   const Dictionary& dictionary) {
  *state = QVTFastDictionaryIteratorState{};
  state->dictionary = dictionary;
  state->keys = dictionary.keys();
  state->values = dictionary.values();
  state->end = state->keys.count();
}

bool QVTFastDictionaryIteratorNext(QVTFastDictionaryIteratorState* state, const Value** key,
                                   const Value** value) {
  if (state->batchPosition == state->batchSize) {
    const std::size_t length = nextBatchLength(state->index, state->end);
    if (length == 0) return false;
    const Value* firstKey = state->keys.values().data() + state->index;
    const Value* firstValue = state->values.values().data() + state->index;
    for (std::size_t i = 0; i < length; ++i) {
      state->keyBatch[i] = firstKey + i;
      state->valueBatch[i] = firstValue + i;
    }
    state->index += length;
    state->batchSize = length;
    state->batchPosition = 0;
  }
  if (key) *key = state->keyBatch[state->batchPosition];
  if (value) *value = state->valueBatch[state->batchPosition];
  ++state->batchPosition;
  return true;
}

}  // namespace pc
