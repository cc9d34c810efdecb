#pragma once

#include <memory>

class CanInterface;

// What the CAN service calls when its main thread starts and stops.
class CanApplication_i {
public:
    virtual ~CanApplication_i() = default;
    virtual void onStart(std::shared_ptr<CanInterface> can) = 0;
    virtual void onStop() = 0;
};
