#include "lab/qzvm/choice.h"

#include <algorithm>
#include <set>
#include <unordered_map>

namespace qz {
namespace {

class Chooser {
  public:
    Chooser(const std::vector<Candidate> &candidates, const std::string &name)
        : candidates_(candidates), name_(name) {
        for (const Candidate &one : candidates) {
            if (is_free(one)) by_disk_[one.found.region.disk_id].push_back(&one);
        }
    }

    Choice choose() {
        const std::string id = only_id();
        const Group group = newest(id);
        Choice choice;
        choice.imported.group = group;
        for (const GroupDisk &disk : group.disks) {
            const Candidate *taken = last_online(id, disk, &choice.notices);
            choice.imported.disks.push_back(taken->disk);
            choice.before.push_back(taken->found.region);
        }
        return choice;
    }

  private:
    bool is_free(const Candidate &one) const {
        return one.found.content == Content::good && !one.taken;
    }
    bool carries(const Candidate &one) const {
        return is_free(one) && one.found.region.group.name == name_;
    }

    std::string only_id() const {
        std::set<std::string> ids;
        for (const Candidate &one : candidates_) {
            if (carries(one)) ids.insert(one.found.region.group.id);
        }
        if (ids.empty()) {
            throw Error("no disk that is online here and free belongs to a group " + name_ +
                        troubles());
        }
        if (ids.size() > 1) {
            throw Error("disks of " + std::to_string(ids.size()) + " different groups called " +
                        name_ + " are online; put those of all but one offline");
        }
        return *ids.begin();
    }

    // An operation that was interrupted between two disks has left the later ones as they were.
    Group newest(const std::string &id) const {
        Group newest;
        for (const Candidate &one : candidates_) {
            const Group &group = one.found.region.group;
            if (!carries(one) || group.id != id) continue;
            if (newest.id.empty() || group.generation > newest.generation) newest = group;
        }
        return newest;
    }

    const Candidate *last_online(const std::string &id, const GroupDisk &disk,
                                 Notices *notices) const {
        std::vector<const Candidate *> all, renamed;
        const auto found = by_disk_.find(disk.id);
        if (found != by_disk_.end()) {
            for (const Candidate *one : found->second) {
                if (one->found.region.group.id != id) continue;
                (carries(*one) ? all : renamed).push_back(one);
            }
        }
        // After an interrupted change of the group's name some still have the other one.
        if (all.empty()) all = renamed;
        if (all.empty()) {
            throw Error("disk " + disk.name + " (id " + disk.id + ") of group " + name_ +
                        " is missing: no disk that is online here and free carries it" +
                        troubles());
        }
        std::sort(all.begin(), all.end(), [](const Candidate *a, const Candidate *b) {
            return a->disk.order > b->disk.order;
        });
        for (size_t i = 1; i < all.size(); ++i) {
            notices->push_back("disk " + all[i]->disk.name + " is passed over: " +
                               all[0]->disk.name + " has the same id and was put online later");
        }
        return all[0];
    }

    // What of the disks may be the reason that one is missing.
    std::string troubles() const {
        std::string text;
        for (const Candidate &one : candidates_) {
            if (!one.trouble.empty()) text += "; " + one.trouble;
            if (one.found.content == Content::damaged) {
                text += "; the private region of disk " + one.disk.name +
                        " is damaged: " + one.found.reason;
            }
        }
        return text;
    }

    const std::vector<Candidate> &candidates_;
    const std::string &name_;
    std::unordered_map<std::string, std::vector<const Candidate *>> by_disk_;
};

}  // namespace

Choice choose_disks(const std::vector<Candidate> &candidates, const std::string &group,
                    const std::string &this_host, bool clear_host) {
    Choice choice = Chooser(candidates, group).choose();
    for (const Region &region : choice.before) {
        const std::string &host = region.group.host;
        if (!host.empty() && host != this_host && !clear_host) {
            throw Error("group " + group + " is imported on host " + host +
                        "; deport it there, or clear that with -C when the host does not use it");
        }
    }
    return choice;
}

}  // namespace qz
