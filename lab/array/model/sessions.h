// The sessions that hosts have open. They live as long as a connection that used them: a process
// that dies takes its sessions along, while a process and its child may share one.
#pragma once

#include <iterator>
#include <map>
#include <set>
#include <string>

#include "lab/array/model/records.h"

namespace lab {

struct Session {
    std::string host, database;
    std::set<int> connections;
};

class Sessions {
  public:
    // Handles count up from `next` and are never used again, so that a closed one can be told from
    // one that never was.
    explicit Sessions(int32_t next) : next_(next) {}

    int32_t open(const std::string &host, const std::string &database, int connection) {
        open_[next_] = {host, database, {connection}};
        return next_++;
    }
    // ok, session_closed or session_unknown. The connection uses the session from now on.
    int use(int32_t handle, const std::string &host, int connection, const Session **found) {
        const auto at = open_.find(handle);
        if (at == open_.end()) {
            return handle >= 1 && handle < next_ ? code::session_closed : code::session_unknown;
        }
        if (at->second.host != host) return code::session_unknown;
        at->second.connections.insert(connection);
        if (found != nullptr) *found = &at->second;
        return code::ok;
    }
    void close(int32_t handle) { open_.erase(handle); }
    void connection_ended(int connection) {
        for (auto at = open_.begin(); at != open_.end();) {
            at->second.connections.erase(connection);
            at = at->second.connections.empty() ? open_.erase(at) : std::next(at);
        }
    }
    int32_t next() const { return next_; }
    const std::map<int32_t, Session> &all() const { return open_; }

  private:
    int32_t next_;
    std::map<int32_t, Session> open_;
};

}  // namespace lab
