// The simplest node that a list with sockets can have, and its element.
#pragma once

#include <cstdint>

namespace test {

struct Node {
  int sock = -1;
};

struct Elem {
  Node* node;
  Elem* prev;
  Elem* next;
  uint64_t place;
};

}  // namespace test
