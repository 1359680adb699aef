// A hostile or broken input is refused with one line that says why.
#pragma once

#include <stdexcept>
#include <string>

namespace zqinspect {

class Refusal : public std::runtime_error {
  public:
    explicit Refusal(const std::string &reason) : std::runtime_error(reason) {}
};

} // namespace zqinspect
