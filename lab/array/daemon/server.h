// The sockets of the array: one for the administrator, one for each host. One thread, one call at a
// time: what a call sees nobody changes under it.
#pragma once

#include <list>
#include <map>
#include <string>

#include "lab/array/daemon/engine.h"
#include "lab/array/media/files.h"

namespace lab {

class Server {
  public:
    Server(Engine *engine, const std::string &control_socket);
    // Serves until the process is ended.
    [[noreturn]] void run();

  private:
    struct Connection {
        Fd fd;
        int number = 0;
        bool admin = false;
        std::string host, in, out;
        std::string later;  // an answer that is kept back until `due`
        Micros due = 0;
        bool ended = false;
    };

    void listen_for(const HostRecord &host);
    void accept_from(const Fd &listener, const std::string &host, bool admin);
    void wait();
    int timeout() const;
    void read_from(Connection *connection);
    void write_to(Connection *connection);
    void release_late(Connection *connection);
    bool take_host_call(Connection *connection);
    bool take_admin_line(Connection *connection);

    Engine *engine_;
    Fd control_;
    std::map<std::string, Fd> listeners_;  // by host
    std::list<Connection> connections_;
    int next_number_ = 1;
};

}  // namespace lab
