#include "counter.h"

namespace demo {

void Counter::add(int n) {
  if (n > 0) {
    total_ += n;
  }
}

}  // namespace demo
