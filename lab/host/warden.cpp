#include "lab/host/warden.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iterator>
#include <map>
#include <sstream>
#include <utility>
#include <vector>

#include "lab/common/descriptor.h"
#include "lab/host/places.h"

namespace tflab {
namespace {

constexpr size_t longest_message = 256;

// What a message begins with; a host's name follows.
enum class Word : char { host = 'H', thaw = 'T', end = 'E' };

sockaddr_un address() {
    sockaddr_un name = {};
    name.sun_family = AF_UNIX;
    const std::string path = place::warden;
    std::copy_n(path.c_str(), std::min(path.size(), sizeof name.sun_path - 1), name.sun_path);
    return name;
}

// Room for one descriptor beside a message.
union DescriptorSpace {
    cmsghdr header;
    char bytes[CMSG_SPACE(sizeof(int))];
};

void send_word(Word word, const std::string &name, int descriptor = -1) {
    const Fd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    std::string text = static_cast<char>(word) + name;
    sockaddr_un to = address();
    iovec data = {text.data(), text.size()};
    DescriptorSpace space = {};
    msghdr message = {};
    message.msg_name = &to;
    message.msg_namelen = sizeof to;
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    if (descriptor >= 0) {
        message.msg_control = space.bytes;
        message.msg_controllen = sizeof space.bytes;
        cmsghdr *header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
    }
    sendmsg(socket.get(), &message, MSG_NOSIGNAL);
}

struct Received {
    std::string text;
    Fd descriptor{};
};

Received receive(int socket) {
    char text[longest_message];
    iovec data = {text, sizeof text};
    DescriptorSpace space = {};
    msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = space.bytes;
    message.msg_controllen = sizeof space.bytes;
    const ssize_t size = recvmsg(socket, &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
    Received received;
    if (size <= 0) return received;
    received.text.assign(text, static_cast<size_t>(size));
    const cmsghdr *header = CMSG_FIRSTHDR(&message);
    if (header != nullptr && header->cmsg_type == SCM_RIGHTS) {
        int descriptor = -1;
        memcpy(&descriptor, CMSG_DATA(header), sizeof descriptor);
        received.descriptor.reset(descriptor);
    }
    return received;
}

std::string read_whole(int fd) {
    std::string text;
    char piece[4096];
    for (ssize_t size = 0; (size = read(fd, piece, sizeof piece)) > 0;) {
        text.append(piece, static_cast<size_t>(size));
    }
    return text;
}

// The directories of the mounts that lie on a block device of a host: field 5 of the lines whose
// source, the second field behind the dash, is a node.
std::vector<std::string> device_mounts(const std::string &mount_table) {
    std::vector<std::string> found;
    std::istringstream table(mount_table);
    for (std::string line; std::getline(table, line);) {
        const size_t dash = line.find(" - ");
        if (dash == std::string::npos) continue;
        std::istringstream front(line), back(line.substr(dash + 3));
        std::string id, parent, device, root, directory, type, source;
        front >> id >> parent >> device >> root >> directory;
        back >> type >> source;
        if (source.starts_with("/dev/")) found.push_back(directory);
    }
    return found;
}

// In a process of its own: which mounts a name leads to is decided by the namespace of the process.
[[noreturn]] void thaw_namespace(int space, int proc) {
    if (setns(space, CLONE_NEWNS) != 0) _exit(1);
    const Fd table(openat(proc, "self/mountinfo", O_RDONLY | O_CLOEXEC));
    for (const std::string &directory : device_mounts(read_whole(table.get()))) {
        const Fd top(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        // One that is not frozen refuses; that is what nearly all of them do.
        ioctl(top.get(), FITHAW, 0);
    }
    _exit(0);
}

// The mount namespaces of the world's hosts; held, they outlive the hosts' processes.
class Hosts {
  public:
    explicit Hosts(int proc) : proc_(proc) {}

    void thaw() const {
        for (const auto &host : spaces_) {
            const int space = host.second.get();
            const pid_t child = fork();
            if (child == 0) thaw_namespace(space, proc_);
            if (child > 0) waitpid(child, nullptr, 0);
        }
    }

    void obey(Received received) {
        if (received.text.empty()) return;
        const std::string name = received.text.substr(1);
        switch (static_cast<Word>(received.text[0])) {
        case Word::host:
            spaces_[name] = std::move(received.descriptor);
            break;
        case Word::thaw:
            thaw();
            break;
        case Word::end:
            thaw();
            if (name.empty()) {
                spaces_.clear();
            } else {
                spaces_.erase(name);
            }
            break;
        }
    }

  private:
    int proc_;
    std::map<std::string, Fd> spaces_;
};

// Out of the reach of whatever ends the caller's session, and out of the way of whoever waits for
// the end of the caller's output. Only these descriptors stay open.
void stand_apart(std::vector<int> kept) {
    setsid();
    prctl(PR_SET_NAME, "tflab-warden");
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) signal(number, SIG_IGN);
    lab::common::keep_only(std::move(kept));
}

}  // namespace

Warden::Warden() : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)), life_(make_pipe()) {
    if (socket_.get() < 0) fails("make a socket");
}

void Warden::listen() {
    life_.read.reset();
    life_.write.reset();
    const sockaddr_un name = address();
    if (bind(socket_.get(), reinterpret_cast<const sockaddr *>(&name), sizeof name) != 0) {
        fails("listen on " + place::warden.string());
    }
    socket_.reset();
}

void Warden::start(pid_t first_process) {
    pid_ = fork_into(0, [this, first_process] {
        life_.write.reset();
        guard(first_process, life_.read);
        return 0;
    });
    life_.read.reset();
    socket_.reset();
}

void Warden::wait() {
    life_.write.reset();
    if (pid_ > 0) wait_for(pid_);
    pid_ = -1;
}

void Warden::guard(pid_t first_process, const Fd &life) const {
    const Fd world(static_cast<int>(syscall(SYS_pidfd_open, first_process, 0)));
    const Fd proc(open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    stand_apart({life.get(), socket_.get(), world.get(), proc.get()});
    Hosts hosts(proc.get());
    pollfd watched[] = {
        {socket_.get(), POLLIN, 0}, {world.get(), POLLIN, 0}, {life.get(), POLLIN, 0}};
    bool ending = false;
    for (;;) {
        // After the caller's end every process of the world is being killed; one of them may still
        // freeze a file system at that moment, so one thaw is not enough.
        poll(watched, std::size(watched), ending ? 5 : -1);
        if ((watched[0].revents & POLLIN) != 0) hosts.obey(receive(socket_.get()));
        if (watched[2].revents != 0) {
            ending = true;
            watched[2].fd = -1;  // its end has been seen
        }
        if (ending) hosts.thaw();
        if (watched[1].revents != 0) {
            hosts.thaw();
            _exit(0);
        }
    }
}

void tell_warden_of_host(const std::string &name, pid_t pid) {
    const Fd space = open_file("/proc/" + std::to_string(pid) + "/ns/mnt", O_RDONLY);
    send_word(Word::host, name, space.get());
}

void ask_warden_to_thaw() {
    send_word(Word::thaw, "");
}

void tell_warden_of_end(const std::string &name) {
    send_word(Word::end, name);
}

}  // namespace tflab
