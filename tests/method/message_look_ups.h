// What the method asks of the host library's message service. The service answers as ever, unless a
// test wants to tell the two texts apart.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace test {

// The arguments of one look-up. function is "qlgetmsg" or "qlgetmsg_errno"; only the latter has an
// errnum.
struct LookUp {
    std::string function, id;
    std::string lc_messages;
    size_t errmsg_size;
    const char *errmsg;
    std::string lc_logging;
    size_t logmsg_size;
    const char *logmsg;
    std::string format;
    int errnum = 0;
};

// For as long as the object lives, every look-up is remembered and writes "M" into the buffer of
// the messages locale and "L" into that of the logging locale.
class MessageLookUps {
  public:
    MessageLookUps();
    ~MessageLookUps();
    MessageLookUps(const MessageLookUps &) = delete;
    MessageLookUps &operator=(const MessageLookUps &) = delete;

    std::vector<LookUp> seen;
};

}  // namespace test
