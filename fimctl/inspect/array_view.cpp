#include "fimctl/inspect/array_view.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "fimctl/array_reader.h"

namespace fimctl {
namespace {

namespace fs = std::filesystem;

constexpr char label[] = "TSR-BCV";

std::vector<std::string> ports_of(const SymDevice &record) {
    std::vector<std::string> ports;
    for (int32_t i = 0; i < record.port_count && i < SYM_MAX_PORTS; ++i) {
        if (record.ports[i][0] != '\0') ports.emplace_back(record.ports[i]);
    }
    return ports;
}

void view_bcv(ArraySession &session, const std::string &symid, BcvView &bcv) {
    SymDevice record = {};
    const int code = session.show_device(symid, bcv.name, record);
    if (code != 0) {
        bcv.trouble = session.reason(code);
        return;
    }
    bcv.own_group = record.dgname;
    bcv.label = record.ldevname;
    bcv.path = record.pdevname;
    bcv.ports = ports_of(record);
}

bool is_synchronised(const BcvView &bcv) {
    return bcv.state == pair_state::synchronised || bcv.state == pair_state::restored;
}

void disks_in(const std::string &folder, const std::string &prefix,
              std::vector<std::string> &disks) {
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string path = entry->path();
        struct stat status = {};
        if (entry->path().filename().string().compare(0, prefix.size(), prefix) != 0) continue;
        if (stat(path.c_str(), &status) != 0) continue;
        if (S_ISBLK(status.st_mode) || S_ISCHR(status.st_mode)) disks.push_back(path);
    }
}

}  // namespace

bool BcvView::is_labelled() const {
    return label.compare(0, strlen(fimctl::label), fimctl::label) == 0;
}

bool DeviceView::is_primary() const {
    return std::any_of(bcvs.begin(), bcvs.end(),
                       [this](const BcvView &bcv) { return bcv.primary == name; });
}

DeviceView view_of(ArraySession &session, const std::string &path) {
    DeviceView device;
    device.asked = path;
    SymDevice record = {};
    const int code = session.show_path(path, record);
    if (code != 0) {
        device.trouble = session.reason(code);
        return device;
    }
    device.symid = record.symid;
    device.name = record.sym_devname;
    device.group = record.dgname;
    device.path = record.pdevname;
    device.ports = ports_of(record);
    for (int32_t i = 0; i < record.bcv_count && i < SYM_MAX_BCVS; ++i) {
        const SymBcvInfo &entry = record.bcvs[i];
        BcvView bcv;
        bcv.name = entry.bcvdev_sym_devname;
        bcv.group = entry.bcvdev_dgname;
        bcv.primary = entry.dev_sym_devname;
        bcv.primary_group = entry.dev_dgname;
        bcv.state = entry.bcv_pair_state;
        view_bcv(session, device.symid, bcv);
        device.bcvs.push_back(std::move(bcv));
    }
    return device;
}

bool is_associated(const DeviceView &device, const BcvView &bcv) {
    return device.group == bcv.group && device.group == bcv.primary_group &&
           device.name == bcv.primary && device.group == bcv.own_group;
}

BcvChoice choose_bcv(const DeviceView &device) {
    BcvChoice choice;
    const auto unread = std::find_if(device.bcvs.begin(), device.bcvs.end(),
                                     [](const BcvView &bcv) { return !bcv.trouble.empty(); });
    if (unread != device.bcvs.end()) {
        choice.trouble = "BCV " + unread->name + ": " + unread->trouble;
        return choice;
    }
    const bool labels = std::any_of(device.bcvs.begin(), device.bcvs.end(),
                                    [](const BcvView &bcv) { return bcv.is_labelled(); });
    for (size_t i = 0; i < device.bcvs.size(); ++i) {
        const BcvView &bcv = device.bcvs[i];
        const bool associated = is_associated(device, bcv);
        const int own = static_cast<int>(i);
        if (!is_synchronised(bcv)) {
            if (!associated) continue;
            // An unlabelled one is a last resort; of labelled ones the last is taken.
            if (bcv.is_labelled()) choice.establishes = true;
            if (bcv.is_labelled() || choice.index < 0) choice.index = own;
            continue;
        }
        if (labels && !bcv.is_labelled()) continue;
        if (associated) {
            choice.index = own;
            choice.establishes = false;
            return choice;
        }
        choice.released.push_back(i);
        choice.establishes = true;
    }
    return choice;
}

std::vector<std::string> disks_of_host() {
    std::vector<std::string> disks;
    disks_in("/dev/qz/rdmp", "", disks);
    disks_in("/dev/qz/dmp", "", disks);
    disks_in("/dev/rdsk", "", disks);
    disks_in("/dev", "emcpower", disks);
    disks_in("/dev", "sd", disks);
    std::sort(disks.begin(), disks.end());
    return disks;
}

}  // namespace fimctl
