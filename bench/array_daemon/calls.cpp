#include "bench/array_daemon/calls.h"

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/array_daemon/arrays.h"
#include "bench/array_daemon/echo.h"
#include "bench/kit/comparison.h"
#include "bench/kit/statistics.h"
#include "include/symapi.h"
#include "lab/array/model/codes.h"
#include "lab/array/transport/wire.h"
#include "lab/host/places.h"
#include "lab/host/system.h"

namespace bench {
namespace {

using Call = std::function<void()>;
// Makes a client of the calling process and answers what one round of it is.
using Client = std::function<Call()>;

struct Exchange {
    std::string name;
    size_t request = 0, reply = 0;  // bytes
    int calls = 1;                  // of the array, in one round
    Client by_library;
    Client by_bare_client;  // empty: not measured
};

// Seconds from the moment when all clients are ready to the moment when the last one is done.
double time_clients(int clients, int rounds, const Client &client) {
    tflab::Pipe ready = tflab::make_pipe(), go = tflab::make_pipe(), done = tflab::make_pipe();
    const auto await = [&](const tflab::Fd &pipe) {
        char byte = 0;
        for (int i = 0; i < clients; ++i) {
            if (read(pipe.get(), &byte, 1) != 1) throw std::runtime_error("a client has failed");
        }
    };
    const auto tell = [](const tflab::Fd &pipe) {
        if (write(pipe.get(), "", 1) != 1) tflab::fails("tell of a client");
    };
    std::vector<pid_t> pids;
    for (int i = 0; i < clients; ++i) {
        pids.push_back(tflab::fork_into(0, [&] {
            ready.read.reset();
            go.write.reset();
            done.read.reset();
            const Call call = client();
            call();
            tell(ready.write);
            ready.write.reset();  // so that the end of the last client that is not ready is seen
            char byte = 0;
            if (read(go.read.get(), &byte, 1) != 0) throw std::runtime_error("no start");
            for (int k = 0; k < rounds / clients; ++k) call();
            tell(done.write);
            return 0;
        }));
    }
    ready.write.reset();
    done.write.reset();
    await(ready.read);
    const auto begin = std::chrono::steady_clock::now();
    go.write.reset();
    await(done.read);
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - begin;
    for (const pid_t pid : pids) tflab::wait_for(pid);
    return wall.count();
}

std::vector<char> request_of(lab::Function function, int32_t session,
                             const std::vector<std::string> &texts, int mode = 0) {
    std::string payload;
    for (const std::string &text : texts) payload += text + '\0';
    lab::RequestHead head = {};
    head.magic = lab::wire_magic;
    head.size = static_cast<uint32_t>(payload.size());
    head.function = function;
    head.session = session;
    head.numbers[0] = mode;
    head.numbers[1] = SYM_INIT_OPTIONS_VERSION;
    std::vector<char> request(sizeof head + payload.size());
    memcpy(request.data(), &head, sizeof head);
    memcpy(request.data() + sizeof head, payload.data(), payload.size());
    return request;
}

const Kind &largest() {
    return kinds().back();
}

Exchange version() {
    Exchange one;
    one.name = "SymApiVersion";
    one.request = sizeof(lab::RequestHead);
    one.reply = sizeof(lab::ReplyHead) + strlen("V5.0-0");
    one.by_library = [] {
        return [] {
            uint32_t number = 0;
            const char *text = nullptr;
            expect("SymApiVersion", SymApiVersion(&number, &text));
        };
    };
    one.by_bare_client = [one] {
        const auto client = std::make_shared<BareClient>(
            lab::host_socket, request_of(lab::function_SymApiVersion, 0, {}), one.reply);
        return [client] { client->call(); };
    };
    return one;
}

Exchange show() {
    const std::vector<std::string> names = {largest().symid, standard_name(largest().pairs / 2)};
    Exchange one;
    one.name = "SymDevShow";
    one.request = request_of(lab::function_SymDevShow, 0, names).size();
    one.reply = sizeof(lab::ReplyHead) + sizeof(SymDevice);
    one.by_library = [names] {
        return [names, session = open_session()] {
            SymDevice device;
            expect("SymDevShow", SymDevShow(session, names[0].c_str(), names[1].c_str(), &device));
        };
    };
    one.by_bare_client = [names, one] {
        const auto client = std::make_shared<BareClient>(
            lab::host_socket, request_of(lab::function_SymInitV, 0, {"/run/bench.db"}, 4),
            sizeof(lab::ReplyHead));
        client->call();
        lab::ReplyHead head;
        memcpy(&head, client->reply().data(), sizeof head);
        client->use(request_of(lab::function_SymDevShow, head.session, names), one.reply);
        return [client] { client->call(); };
    };
    return one;
}

// Nothing is done, but everything is looked up that would be done.
Exchange refused_control() {
    const std::vector<std::string> names = {largest().symid, standard_name(0), bcv_name(0)};
    Exchange one;
    one.name = "SymDevBcvControl, refused";
    one.request = request_of(lab::function_SymDevBcvControl, 0, names).size();
    one.reply = sizeof(lab::ReplyHead);
    one.by_library = [names] {
        return [names, session = open_session()] {
            expect("SymDevBcvControl",
                   SymDevBcvControl(session, names[0].c_str(), names[1].c_str(), names[2].c_str(),
                                    2, 0),
                   lab::code::pair_split);
        };
    };
    return one;
}

// The number of the next session is saved: a transaction of the array's database.
Exchange sessions() {
    Exchange one;
    one.name = "SymInitV and SymExit";
    one.request = request_of(lab::function_SymInitV, 0, {"/run/bench.db"}).size();
    one.reply = sizeof(lab::ReplyHead);
    one.calls = 2;
    one.by_library = [] { return [] { expect("SymExit", SymExit(open_session(), 0)); }; };
    return one;
}

std::string text_of(const Exchange &exchange, int clients) {
    return exchange.name + ", " + std::to_string(clients) +
           (clients == 1 ? " client" : " clients at once");
}

void measure(const Exchange &exchange, int clients, const CallOptions &options) {
    const Echo echo(tflab::place::run / "echo.sock", exchange.request, exchange.reply);
    const Client bare = [&] {
        const auto client = std::make_shared<BareClient>(
            echo.path(), std::vector<char>(exchange.request), exchange.reply);
        return [client, calls = exchange.calls] {
            for (int i = 0; i < calls; ++i) client->call();
        };
    };
    const int rounds = options.calls / exchange.calls;
    std::vector<double> library, daemon, floor;
    for (int i = 0; i < options.repetitions; ++i) {
        library.push_back(time_clients(clients, rounds, exchange.by_library));
        if (exchange.by_bare_client) {
            daemon.push_back(time_clients(clients, rounds, exchange.by_bare_client));
        }
        floor.push_back(time_clients(clients, rounds, bare));
    }
    Result result;
    result.row = "array daemon";
    result.what = text_of(exchange, clients);
    result.measure = "time of a call";
    result.against = "an echo";
    result.note = std::to_string(exchange.request) + " bytes out, " +
                  std::to_string(exchange.reply) + " back";
    result.subject = "host library and daemon";
    result.ratio = median_ratio(library, floor);
    print(result);
    if (daemon.empty()) return;
    result.subject = "the daemon alone";
    result.ratio = median_ratio(daemon, floor);
    print(result);
}

}  // namespace

void measure_calls(const CallOptions &options) {
    for (const Exchange &exchange : {version(), show(), refused_control(), sessions()}) {
        for (const int clients : {1, 8}) {
            if (text_of(exchange, clients).find(options.only) == std::string::npos) continue;
            measure(exchange, clients, options);
        }
    }
}

}  // namespace bench
