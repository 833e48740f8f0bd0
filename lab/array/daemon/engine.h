// The array at work: the model with its clock, its data and its saved state.
//
// Order of every change: the model plans, the medium moves the data, the model is changed, the
// store saves it. A daemon that dies in between leaves data that the saved state does not know yet,
// never a saved state that the data do not bear out.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "lab/array/media/media.h"
#include "lab/array/model/clock.h"
#include "lab/array/model/control.h"
#include "lab/array/model/faults.h"
#include "lab/array/model/sessions.h"
#include "lab/array/model/world.h"
#include "lab/array/store/store.h"

namespace lab {

// Real time of a steady clock in microseconds.
Micros steady_time();

// When the data of the last split were cut: the instant lies between the two, in nanoseconds of the
// machine's steady clock. 0 before the first split of this daemon.
struct CutTime {
    int64_t begun_ns = 0, ended_ns = 0;
};

class Engine {
  public:
    // Loads the saved state and brings all devices and nodes up.
    Engine(const std::string &state_file, std::unique_ptr<Media> media);

    Micros now() const { return clock_.now(steady_time()); }
    // Ends what is over, and saves. To be called before anything is looked at.
    void settle();
    // Real microseconds until settle() has something to do; -1: never by itself.
    Micros next_settle() const;
    // Saves what changed; answers ok or store_failed.
    int save();

    // Executes an action on pairs of one array and answers a code.
    int control(const std::string &symid, const std::vector<PairNames> &names, int action);

    // The administrator's changes. Each throws Refused or MediaError.
    const Device &create_device(const std::string &symid, const std::string &name, uint64_t size,
                                bool bcv);
    void pair(const std::string &symid, const std::string &primary, const std::string &bcv);
    void add_host(const HostRecord &host);
    void mask(const std::string &symid, const std::string &name, const std::string &host,
              const std::vector<Path> &paths);
    void unmask(const std::string &symid, const std::string &name, const std::string &host);
    void set_path(const std::string &host, const std::string &path, bool down);
    void advance_clock(Micros by);
    void run_clock(bool running);
    // What is wrong, one sentence each, in the model and in the data.
    std::vector<std::string> check();

    World &world() { return world_; }
    const World &world() const { return world_; }
    const Clock &clock() const { return clock_; }
    CutTime last_cut() const { return last_cut_; }
    Faults &faults() { return faults_; }
    Media &media() { return *media_; }
    Sessions &sessions() { return sessions_; }

    // Makes the socket of a host that is added; throws Refused when it cannot be. Set by the
    // server.
    std::function<void(const HostRecord &)> listen;

  private:
    std::vector<DataPair> data_pairs(const Control &plan) const;
    std::vector<uint64_t> move_data(const Control &plan);
    std::vector<uint64_t> join(const Control &plan);
    std::vector<uint64_t> restore(const Control &plan);
    void expose(const View &view);

    Store store_;
    std::unique_ptr<Media> media_;
    World world_;
    Faults faults_;
    Clock clock_;
    Sessions sessions_;
    CutTime last_cut_;
};

// The file that stands for a host's path in its folder of devices.
std::string node_path(const HostRecord &host, const std::string &path);

}  // namespace lab
