// Where the data of the devices are. The array decides what is moved; a medium moves it.
//
// A medium knows nothing of pair states. It throws MediaError when it cannot do what it is asked.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "lab/array/model/records.h"

namespace lab {

struct MediaError : std::runtime_error {
    MediaError(int answer, const std::string &what) : std::runtime_error(what), number(answer) {}
    int number;  // the array's code: media_failed, bcv_held or standard_held
};

// A pair whose data are moved.
struct DataPair {
    const Device *primary, *bcv;
};

// A device that nobody else holds while this lives.
class Claim {
  public:
    virtual ~Claim() = default;
};

class Media {
  public:
    virtual ~Media() = default;
    // "loop" or "files".
    virtual std::string kind() const = 0;
    // What an operator has to know of its limits, in a line; empty when there are none.
    virtual std::string limits() const = 0;

    // Makes the device's place in the store when it is new, and brings the device up; a BCV that is
    // not ready has no capacity for its hosts.
    virtual void attach(const Device &device, bool ready) = 0;
    // The device as the machine names it, for the administrator.
    virtual std::string shown(const Device &device) const = 0;
    // Whether a host can read from the device now.
    virtual bool ready(const Device &device) const = 0;

    // Claims a device or throws bcv_held or standard_held when a host holds or has mounted it.
    virtual std::unique_ptr<Claim> claim(const Device &device) = 0;
    // BCVs that are so already stay so. When one cannot be changed, some of the others may have
    // been.
    virtual void set_ready(const std::vector<const Device *> &bcvs, bool ready) = 0;
    // Tracks in which the BCV differs from its standard device.
    virtual uint64_t changed_tracks(const DataPair &pair) = 0;
    // Copies every standard device of the call into its BCV as of one instant. All pairs are of one
    // array. The BCVs are not ready meanwhile.
    virtual void cut(const std::vector<DataPair> &pairs) = 0;
    // Copies every BCV back into its standard device.
    virtual void copy_back(const std::vector<DataPair> &pairs) = 0;

    // Makes the host's node of a device at `path`, replacing what is there; a path that is down is
    // a node that cannot be opened.
    virtual void expose(const Device &device, const std::string &path, bool down) = 0;
    void hide(const std::string &path);
};

// `store` is a folder that exists. A loop medium needs root and a store that can clone ranges.
std::unique_ptr<Media> make_loop_media(const std::string &store);
std::unique_ptr<Media> make_file_media(const std::string &store);

}  // namespace lab
