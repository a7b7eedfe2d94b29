// A header that warns under -Wshadow on purpose: the header check must refuse it (see
// tests/headers/CMakeLists.txt, public_headers_alone_refuses_a_warning).
#pragma once

namespace NyHeaderCheck {

class Shadowing {
  public:
    int Twice() const {
        const int value = 2 * this->value;
        return value;
    }

  private:
    int value = 1;
};

}  // namespace NyHeaderCheck
