#include "tests/lab_volumes/volumes.h"

#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>

namespace test {

const Object vol1 = {"datadg", "vol1", "ext4", "p0"};
const Object vol2 = {"datadg", "vol2", "xfs", "p1"};
const Object vol3 = {"datadg", "vol3", "ext4", "p1 p2"};
const Object log1 = {"logdg", "log1", "ext4", "p3"};

namespace {

constexpr char sums_of_all_files[] =
    "find . -path ./lost+found -prune -o -type f -print | sort | xargs -r sha256sum";

}  // namespace

void expect_all_succeed(const Phase &phase) {
    for (const Call &call : phase.calls) expect_success(call);
}

void VolumesInTheLab::make(const Objects &objects) {
    std::map<std::string, std::set<std::string>> disks;
    for (const Object &object : objects) {
        std::istringstream names(object.disks);
        for (std::string name; names >> name;) disks[object.group].insert(name);
    }
    std::string line = "set -e\n";
    for (const auto &[group, names] : disks) {
        line += "qzdg init " + group;
        for (const std::string &name : names) line += " " + name;
        line += "\n";
    }
    for (const Object &object : objects) {
        line += "qzvol -g " + object.group + " make " + object.name + " " + object.size() +
                " --fstype " + object.type;
        std::istringstream names(object.disks);
        for (std::string name; names >> name;) line += " --disk " + name;
        line += "\n";
    }
    for (const auto &entry : disks) line += "qzvol -g " + entry.first + " startall\n";
    for (const Object &object : objects) {
        line +=
            "mkfs." + object.type + " -q " + object.block() + "\nmkdir -p " + object.data() + " " +
            object.copy() + "\nmount " + object.block() + " " + object.data() + "\ncd " +
            object.data() +
            "\nmkdir -p deep/er\n"
            "for i in 1 2 3 4 5 6 7 8; do head -c $((i * i * 12345)) /dev/urandom >file$i; done\n"
            "head -c 2000000 /dev/urandom >deep/er/large\n" +
            sums_of_all_files + " >/exchange/" + object.name + ".sums\ncd /\n";
    }
    host(line + "sync");
}

void VolumesInTheLab::change(const Object &object) {
    host("cd " + object.data() +
         " && head -c 3000000 /dev/urandom >deep/er/large && rm file3 file4 && echo x >>file5"
         " && head -c 500000 /dev/urandom >new && sync -f .");
}

std::string VolumesInTheLab::check_step(const Object &object, const std::string &directory) {
    return "cd " + directory + " && { " + sums_of_all_files + "; } | cmp - /exchange/" +
           object.name + ".sums";
}

void VolumesInTheLab::expect_unchanged(const Object &object, const std::string &directory) {
    int status = -1;
    const std::string output = host(check_step(object, directory), &status);
    EXPECT_EQ(status, 0) << object.name << " in " << directory << ": " << output;
}

void VolumesInTheLab::expect_sound(const Object &object, const std::string &block) {
    host((object.type == "xfs" ? "xfs_repair -n " : "e2fsck -fn ") + block);
}

Words VolumesInTheLab::for_each(const Objects &objects, const Words &steps) {
    Words all;
    for (size_t i = 0; i < objects.size(); ++i) {
        all.insert(all.end(), {"object", std::to_string(i)});
        for (std::string step : steps) {
            if (step == "SOURCE") step = objects[i].data();
            if (step == "COPY") step = objects[i].copy();
            if (step == "TEXT") step = text(i);
            if (step == "TEXT.up") step = text(i) + ".up";
            if (step == "TEXT.here") step = text(i) + ".here";
            if (step == "CHECK") step = check_step(objects[i], objects[i].copy());
            all.push_back(step);
        }
    }
    return all;
}

namespace {

Words joined(std::initializer_list<Words> parts) {
    Words all;
    for (const Words &part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

}  // namespace

Phase VolumesInTheLab::freeze(const Objects &objects, const std::string &config, Words further) {
    const Phase frozen = phase(joined({for_each(objects, {"freeze", config, "SOURCE", "COPY"}),
                                       {"ctl", "4"},
                                       for_each(objects, {"commit"}),
                                       for_each(objects, {"ckpt", "TEXT"}),
                                       std::move(further)}));
    expect_all_succeed(frozen);
    return frozen;
}

Phase VolumesInTheLab::bring_up(const Objects &objects, Words further) {
    for (const Object &object : objects) host("mkdir -p " + object.copy());
    const Phase up = phase(joined({for_each(objects, {"rebuild", "TEXT"}),
                                   for_each(objects, {"volumes", "run", "CHECK"}),
                                   std::move(further), for_each(objects, {"ckpt", "TEXT.up"})}));
    expect_all_succeed(up);
    return up;
}

Phase VolumesInTheLab::thaw(const Objects &objects, bool commit) {
    const Phase gone =
        phase(joined({for_each(objects, {"rebuild", "TEXT.up"}), for_each(objects, {"thaw"}),
                      commit ? for_each(objects, {"thaw_commit"}) : Words()}));
    expect_all_succeed(gone);
    return gone;
}

void VolumesInTheLab::carry_clone_information(const Objects &objects) {
    for (size_t i = 0; i < objects.size(); ++i) {
        host("file=$(sed -n 's/^TRANSFER_FILE=//p' " + text(i) +
             "); [ -z \"$file\" ] || sed -i \"/^TRANSFER_FILE=/r $file\" " + text(i));
    }
}

void VolumesInTheLab::add_first(const Objects &objects, const std::string &line,
                                const std::string &suffix) {
    for (size_t i = 0; i < objects.size(); ++i) {
        host("sed -i '1i " + line + "' " + text(i) + suffix);
    }
}

std::string VolumesInTheLab::saved(const std::string &name) const {
    std::ifstream in(exchange() / name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

Words VolumesInTheLab::commands(const Call &call) {
    static const std::regex temporary("/tmp/(QfMS|EMCT[XF])[A-Za-z0-9]{6}");
    const std::string begin = "Executing command: ",
                      end = " </dev/null >/tmp/QfMS?????? 2>/tmp/QfMS??????";
    Words lines;
    for (const std::string &line : call.log) {
        if (line.compare(0, begin.size(), begin) != 0) continue;
        std::string fixed = std::regex_replace(line, temporary, "/tmp/$1??????");
        EXPECT_TRUE(fixed.ends_with(end)) << fixed;
        fixed.resize(fixed.size() - std::min(fixed.size(), end.size()));
        // How the array's serial number is asked for is no matter of volumes.
        if (fixed.find("tqtpcinfo") == std::string::npos)
            lines.push_back(fixed.substr(begin.size()));
    }
    return lines;
}

Words VolumesInTheLab::commands(const Phase &phase) {
    Words lines;
    for (const Call &call : phase.calls) {
        const Words of_call = commands(call);
        lines.insert(lines.end(), of_call.begin(), of_call.end());
    }
    return lines;
}

std::string VolumesInTheLab::mounts() {
    return host("grep -E ' /(data|copy)/' /proc/self/mounts | cut -d' ' -f1-3 | sort");
}

void VolumesInTheLab::expect_no_copy_here() {
    EXPECT_EQ(host("grep ' /copy/' /proc/self/mounts; ls /dev/qz/dsk 2>/dev/null | grep _clone;"
                   " qzdg list | grep _clone; ls -A /tmp; true"),
              "");
    EXPECT_EQ(counter_files(), "");
}

void VolumesInTheLab::expect_pairs(const Objects &objects, int state) {
    for (const Object &object : objects) {
        std::istringstream names(object.disks);
        for (std::string name; names >> name;) {
            const std::string number = std::to_string(atoi(name.substr(1).c_str()) + 1);
            EXPECT_EQ(pair_state("00A" + number, "01A" + number), state) << name;
        }
    }
}

void VolumesInTheLab::expect_released(const Objects &objects) {
    expect_no_copy_here();
    array("clock advance 60");
    expect_pairs(objects, 2);
    array("check");
}

Phase VolumesOnTwoHosts::bring_up_there(const Objects &objects) {
    on("backup1");
    for (size_t i = 0; i < objects.size(); ++i) host("cp " + text(i) + " " + text(i) + ".here");
    add_first(objects, "HDEF-is_tgt=1");
    const Phase up = bring_up(objects);
    add_first(objects, "HDEF-is_tgt=1", ".up");
    return up;
}

Phase VolumesOnTwoHosts::thaw_there(const Objects &objects) {
    on("backup1");
    return thaw(objects, false);
}

Phase VolumesOnTwoHosts::release_here(const Objects &objects) {
    on("client1");
    const Phase gone =
        phase(joined({for_each(objects, {"rebuild", "TEXT.here"}), for_each(objects, {"thaw"}),
                      for_each(objects, {"thaw_commit"})}));
    expect_all_succeed(gone);
    return gone;
}

}  // namespace test
