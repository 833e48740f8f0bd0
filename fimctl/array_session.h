// One reading session on the array, straight on the array's own library, and the process that it
// lives in. Of the library only what shows, lists, opens and ends a session is called: fimctl never
// commands the array.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "fimctl/channel.h"
#include "fimctl/failure.h"
#include "include/symapi.h"

namespace fimctl {

Failure array_unreachable(const std::string &text);

class ArraySession {
  public:
    // Loads the library. Throws Failure (array).
    ArraySession();
    ArraySession(const ArraySession &) = delete;
    ArraySession &operator=(const ArraySession &) = delete;
    ~ArraySession();

    // The release that the library reports, 0 where it reports none.
    uint32_t version(std::string *text = nullptr);
    std::string patch_level();
    // Whether the library has a function of this name.
    bool has(const char *name) const;

    // Throws Failure (array) when the library lacks what a reading needs.
    void require_functions() const;
    // Opens the session on the host's database, which is never made here. Throws Failure (array).
    void open();
    // 0, or the array's code: a device that the array does not know is no failure of the session.
    int show_device(const std::string &symid, const std::string &device, SymDevice &record);
    int show_path(const std::string &path, SymDevice &record);
    // The array's words for a code.
    std::string reason(int code);

  private:
    template <typename Function>
    Function *find(const char *name) const;

    void *library_ = nullptr;
    bool open_ = false;
    int32_t session_ = -1;
};

// Runs a reading in a process of its own, so that it sees the array (or whatever it loads) as it is
// now and shares nothing with the method's session; returns its answer, or throws its Failure with
// this step.
Message read_elsewhere(Step step, const std::function<Message()> &reading);

}  // namespace fimctl
