// SPDX-License-Identifier: MIT
// Requests that any thread makes and one thread takes, without a lock.
#pragma once

#include <atomic>
#include <span>

namespace ipplayout::platform {

// What can ask for attention. In one stack at a time, and once at most.
struct RequestNode {
  // Set while the node is in a stack, and by an owner that wants no further request to enter it.
  std::atomic<bool> requested{false};
  RequestNode* next = nullptr;  // belongs to the stack
};

// The taker clears `requested` of a node before it looks at what the node is about: a request that
// comes later enters anew, one that came before is seen.
class RequestStack {
 public:
  // True when the node was not requested yet: then the taker is to be woken.
  bool Push(RequestNode& node) {
    if (node.requested.exchange(true)) {
      return false;
    }
    RequestNode* top = top_.load(std::memory_order_relaxed);
    do {
      node.next = top;
    } while (!top_.compare_exchange_weak(top, &node));
    return true;
  }

  // Several that were not requested yet, in one step: whoever takes one of them takes all.
  template <typename Node>
  void PushTogether(std::span<Node* const> nodes) {
    if (nodes.empty()) {
      return;
    }
    RequestNode* newest = nullptr;
    for (RequestNode* node : nodes) {
      node->requested.store(true);
      node->next = newest;
      newest = node;
    }
    RequestNode* const oldest = nodes.front();
    RequestNode* top = top_.load(std::memory_order_relaxed);
    do {
      oldest->next = top;
    } while (!top_.compare_exchange_weak(top, newest));
  }

  bool IsEmpty() const { return top_.load() == nullptr; }

  // All nodes, linked by `next` in the order in which they came; null when there is none.
  RequestNode* TakeAll() {
    RequestNode* newest = top_.exchange(nullptr);
    RequestNode* oldest = nullptr;
    while (newest != nullptr) {
      RequestNode* const before = newest->next;
      newest->next = oldest;
      oldest = newest;
      newest = before;
    }
    return oldest;
  }

 private:
  std::atomic<RequestNode*> top_{nullptr};
};

}  // namespace ipplayout::platform
