#pragma once
// Callback-driven iteration over arrays, sets and dictionaries, and two
// batched iterators with a caller-owned state record for tight loops.
//
// Callbacks are plain functions with an untyped context pointer, so that hot
// loops pay no allocation or indirection beyond the call. The while-true forms
// stop at the first false result.

#include <cstddef>
#include <functional>

#include "platform/Value.h"

namespace pc {

namespace IterationHelpers {

// Array callbacks.
using ArrayMapFunction = Value (*)(const Value& element, void* context);
using ArrayIterFunction = void (*)(const Value& element, std::size_t index, void* context);
using ArrayTestFunction = bool (*)(const Value& element, std::size_t index, void* context);
using ArrayUnqueueFunction = bool (*)(const Value& element, void* context);
// Set callbacks.
using SetIterFunction = void (*)(const Value& element, void* context);
using SetTestFunction = bool (*)(const Value& element, void* context);
// Dictionary callbacks.
using DictionaryIterFunction = void (*)(const Value& key, const Value& value, void* context);
using DictionaryTestFunction = bool (*)(const Value& key, const Value& value, void* context);
using DictionaryFindFunction = Value (*)(const Value& key, const Value& value, void* context);

// --- Arrays ---

// The non-null results of `function` on each element, in order.
Array qvt_map(const Array& array, ArrayMapFunction function, void* context = nullptr);
// The same with any callable (the element's "selector").
Array qvt_mapWithSelector(const Array& array, const std::function<Value(const Value&)>& selector);
// Calls `function` on every element in index order.
void qvt_iter(const Array& array, ArrayIterFunction function, void* context = nullptr);
// Calls in order until a call answers false; answers the last result (true
// for an empty array).
bool qvt_iterWhileTrue(const Array& array, ArrayTestFunction function, void* context = nullptr);
// An AND that stops early: the same as qvt_iterWhileTrue.
bool conjunction(const Array& array, ArrayTestFunction function, void* context = nullptr);
// An OR that stops early: calls in order until a call answers true; answers
// that result (false for an empty array).
bool disjunction(const Array& array, ArrayTestFunction function, void* context = nullptr);
// Walks from the last element backwards while `function` answers true, then
// removes that tail in one step. Answers the last result (true when empty).
bool unqueueWhileTrue(Array& array, ArrayUnqueueFunction function, void* context = nullptr);

// --- Sets (in the set's enumeration order) ---

void qvt_iter(const Set& set, SetIterFunction function, void* context = nullptr);
bool qvt_iterWhileTrue(const Set& set, SetTestFunction function, void* context = nullptr);
// A new set of the elements for which `function` answers true.
Set choose(const Set& set, SetTestFunction function, void* context = nullptr);

// --- Dictionaries ---

// Over a snapshot of the keys, so the callback may change the dictionary; a
// key removed meanwhile is passed with a null value.
void qvt_iter(const Dictionary& dictionary, DictionaryIterFunction function,
              void* context = nullptr);
// Over the live entries, stopping at the first false; answers the last result
// (true when empty).
bool qvt_iterWhileTrue(const Dictionary& dictionary, DictionaryTestFunction function,
                       void* context = nullptr);
// The first non-null result of `function`, null when none.
Value qvt_find(const Dictionary& dictionary, DictionaryFindFunction function,
               void* context = nullptr);
// For each entry in order while `function` answers true, removes the entry
// after the call. Answers the last result (true when empty).
bool unqueueWhileTrue(Dictionary& dictionary, DictionaryTestFunction function,
                      void* context = nullptr);

}  // namespace IterationHelpers

// --- Batched iterators ---
//
// The state record is the caller's (usually on the stack). Elements are
// fetched up to kQVTFastIteratorBatchSize at a time into the record itself,
// so the collection may be changed while it is walked: the array iterator
// visits the elements below the end fixed at initialisation that are still
// there when their batch is fetched, the dictionary iterator the entries it
// had at initialisation. A
// pointer answered stays valid until the next call on the same record.

inline constexpr std::size_t kQVTFastIteratorBatchSize = 20;

struct QVTFastArrayIteratorState {
  std::size_t index = 0;          // next element to fetch
  std::size_t end = 0;            // element count at initialisation
  std::size_t batchPosition = 0;  // next slot to answer
  std::size_t batchSize = 0;      // slots filled by the last fetch
  Array array;
  // Copies, not pointers into the array: appending may move its storage.
  Value batch[kQVTFastIteratorBatchSize];
};

struct QVTFastDictionaryIteratorState {
  Dictionary dictionary;
  std::size_t index = 0;
  std::size_t end = 0;
  std::size_t batchPosition = 0;
  std::size_t batchSize = 0;
  Array keys;    // parallel snapshots of the dictionary's keys and values
  Array values;
  const Value* keyBatch[kQVTFastIteratorBatchSize] = {};
  const Value* valueBatch[kQVTFastIteratorBatchSize] = {};
};

void QVTFastArrayIteratorInit(QVTFastArrayIteratorState* state, const Array& array);
// The next element, or nullptr at the end.
const Value* QVTFastArrayIteratorNext(QVTFastArrayIteratorState* state);

void QVTFastDictionaryIteratorInit(QVTFastDictionaryIteratorState* state,
                                   const Dictionary& dictionary);
// Stores the next key and value (each only when its out pointer is given) and
// answers true; false at the end.
bool QVTFastDictionaryIteratorNext(QVTFastDictionaryIteratorState* state, const Value** key,
                                   const Value** value);

}  // namespace pc
