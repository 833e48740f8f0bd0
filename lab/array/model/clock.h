// The array's clock. It runs with real time or stands still, and can be put forward at any time, so
// that a wait of a minute takes no minute.
#pragma once

#include "lab/array/model/records.h"

namespace lab {

class Clock {
  public:
    // Starts at `start`; `real` is the real time now, in microseconds of any steady clock.
    Clock(Micros start, Micros real, bool running)
        : virtual_base_(start), real_base_(real), running_(running) {}

    Micros now(Micros real) const {
        return running_ ? virtual_base_ + (real - real_base_) : virtual_base_;
    }
    // Real time until the virtual time `at`, or -1 when it never comes by itself.
    Micros until(Micros at, Micros real) const {
        if (at <= now(real)) return 0;
        return running_ ? at - now(real) : -1;
    }
    void advance(Micros by) { virtual_base_ += by; }
    void run(Micros real, bool running) {
        virtual_base_ = now(real);
        real_base_ = real;
        running_ = running;
    }
    bool running() const { return running_; }

  private:
    Micros virtual_base_, real_base_;
    bool running_;
};

}  // namespace lab
