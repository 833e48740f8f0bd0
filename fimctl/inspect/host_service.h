// The host product's base library as the method itself finds it, for the questions that decide a
// snapshot: asked of the library that the method is linked to, since another one might answer
// otherwise. To be used in a process of its own (read_elsewhere), so that it is loaded afresh.
#pragma once

#include <string>
#include <vector>

namespace fimctl {

class HostService {
  public:
    // Loads the method's library; what goes wrong is in trouble().
    explicit HostService(const std::string &method);
    HostService(const HostService &) = delete;
    HostService &operator=(const HostService &) = delete;
    ~HostService() = default;

    const std::string &trouble() const { return trouble_; }
    // The entry points that the method lacks.
    std::vector<std::string> missing_entry_points() const;
    // Whether the three questions below can be asked.
    bool answers() const;
    // Whether the host's configuration has an entry.
    bool has_entry(const std::string &key) const;
    bool is_local(const std::string &host) const;
    // The host's name up to its first ".", as the method stores it.
    std::string short_name() const;

  private:
    void *library_ = nullptr;
    std::string trouble_;
};

}  // namespace fimctl
