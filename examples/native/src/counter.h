#pragma once

namespace demo {

// Counts events and remembers the largest count seen.
class Counter {
 public:
  void add(int n);
  int total() const { return total_; }

 private:
  int total_ = 0;
};

}  // namespace demo
