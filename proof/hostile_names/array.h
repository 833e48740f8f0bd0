// An array that knows every device it is asked for, with one pair whose state moves at once.
#pragma once

#include <string>

namespace hostile {

// What the array says; it is believed, so a name in it can be anything that fits.
struct ArrayNames {
    std::string symid = "000184500123", primary = "00A1", bcv = "01A1", group = "DG";
    std::string bcv_path = "/dev/sdq";  // of the mirror on this host
    std::string port;                   // an alternate path of the mirror
    bool shows_primary = true;          // by its array name: whether this host sees it
    long state = 2;                     // of the pair
};

// Binds it to the array functions of this process and opens a session.
void bind_array(const ArrayNames &names);

}  // namespace hostile
