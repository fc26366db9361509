// An open file or folder, closed with its owner.
#pragma once

#include <unistd.h>

#include <utility>

namespace appsync {

class Descriptor {
  public:
    Descriptor() = default;
    explicit Descriptor(int number) noexcept : _number(number) {}
    Descriptor(Descriptor&& other) noexcept : _number(std::exchange(other._number, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(_number, other._number);
        return *this;
    }
    ~Descriptor() {
        if (_number >= 0) {
            ::close(_number);
        }
    }

    [[nodiscard]] bool isOpen() const noexcept { return _number >= 0; }
    [[nodiscard]] int get() const noexcept { return _number; }
    [[nodiscard]] int release() noexcept { return std::exchange(_number, -1); }

  private:
    int _number = -1;
};

} // namespace appsync
