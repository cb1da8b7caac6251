// Publication of values that request threads read without a lock while the routing data
// changes them: the writer builds the new value aside and stores it with release order, a reader
// loads it with acquire order and so sees the new value complete or the old one. Whatever the
// store replaces must stay readable until no reader can hold it; routing versions retire such
// memory and free it with themselves.
#pragma once

#include <atomic>
#include <type_traits>

namespace kyr {

template <class T>
void kyrPublish(T& slot, std::type_identity_t<T> value) {
  std::atomic_ref<T>(slot).store(value, std::memory_order_release);
}

template <class T>
T kyrPublished(const T& slot) {
  return std::atomic_ref<T>(const_cast<T&>(slot)).load(std::memory_order_acquire);
}

// Publishes the new value and hands back the one it replaced, for retiring.
template <class T>
T kyrPublishExchange(T& slot, std::type_identity_t<T> value) {
  return std::atomic_ref<T>(slot).exchange(value, std::memory_order_acq_rel);
}

}  // namespace kyr
