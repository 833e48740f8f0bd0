// The numbers that cross the method's boundaries, with their names.
#pragma once

#include <cstdint>

namespace tf {

// Status of every operation: the framework treats any other value than 0 as a failure too.
inline constexpr int32_t success = 0;
inline constexpr int32_t failure = 11;

// What the framework reads through its error-number slot. Stored immediately before the message.
enum class ErrorNumber : int32_t {
    memory = 1,       // no memory, or the caller's input has no internal form
    operation = 3,    // a device, library or command operation failed
    mount_table = 4,  // the mount table cannot be opened
    parameter = 7,    // a parameter is missing or wrong, or the request does not fit the snapshot
    pair_query = 8,   // an array query failed while the BCV pair was looked up
    not_primary = 9,  // the device is not a primary device
    no_bcv = 10,      // no BCV for the device
    disk_group =
        11,        // a disk group is unlisted, empty or cannot be cleaned up; a pair cannot split
    session = 12,  // the array session cannot be started, or a BCV control action failed
    limit = 13,    // a limit was exceeded or input could not be read
};

// States of a BCV pair, as the array reports them.
namespace PairState {
inline constexpr long synchronising = 1;
inline constexpr long synchronised = 2;
inline constexpr long splitting = 3;
inline constexpr long split = 5;
inline constexpr long restoring = 7;
inline constexpr long restored = 8;
inline constexpr int32_t not_read = 10;  // the method's own: nothing has been read yet
}  // namespace PairState

// Actions of the array's BCV control calls.
namespace BcvAction {
inline constexpr int full_establish = 1;
inline constexpr int split = 2;
inline constexpr int incremental_establish = 3;
inline constexpr int restore = 5;
}  // namespace BcvAction

// Option words of the control calls. Releases from 5.0 on take a further bit.
inline constexpr int32_t symapi_version_5 = 0x0500;
namespace BcvOption {
inline constexpr uint32_t none = 0;
inline constexpr uint32_t split_before_5 = 0x800;
inline constexpr uint32_t split_from_5 = 0x400800;
inline constexpr uint32_t establish_from_5 = 0x400000;
}  // namespace BcvOption
inline constexpr uint32_t split_option(int32_t version) {
    return version < symapi_version_5 ? BcvOption::split_before_5 : BcvOption::split_from_5;
}
inline constexpr uint32_t establish_option(int32_t version) {
    return version < symapi_version_5 ? BcvOption::none : BcvOption::establish_from_5;
}

// Scope of the refresh calls: of a primary by its host path, of a BCV by its array name.
inline constexpr int refresh_primary = 1;
inline constexpr int refresh_bcv = 2;

// "A split is still finishing in the background": the control call is repeated.
inline constexpr bool split_in_background(int code) {
    return code == 1012 || code == 1013;
}

// Pauses, in seconds: between two looks at a pair's state, and before a control call is repeated
// that met a split in the background.
inline constexpr unsigned state_poll_pause = 1;
inline constexpr unsigned background_split_pause = 10;

// The device limit: a batch of 2047 pairs is refused while the message names 2048. Scripts of
// operators match on the quoted number, so both stay as they are.
inline constexpr int32_t quoted_device_limit = 2048;
inline constexpr int32_t batch_limit = 2046;

}  // namespace tf
