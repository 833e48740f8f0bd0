#include "lab/array/store/store.h"

namespace lab {
namespace {

constexpr char schema[] = R"(
CREATE TABLE array (symid TEXT PRIMARY KEY, capacity INTEGER, used INTEGER);
CREATE TABLE device (id INTEGER PRIMARY KEY, symid TEXT REFERENCES array, name TEXT, size INTEGER,
                     bcv INTEGER, offset INTEGER, grp TEXT, ldev TEXT, UNIQUE (symid, name));
CREATE TABLE pair (id INTEGER PRIMARY KEY, standard INTEGER REFERENCES device,
                   bcv INTEGER REFERENCES device, state INTEGER, started INTEGER, ends INTEGER,
                   background_until INTEGER, tracks INTEGER, established_before INTEGER,
                   UNIQUE (standard, bcv));
CREATE TABLE host (name TEXT PRIMARY KEY, socket TEXT, dev TEXT);
CREATE TABLE path (host TEXT, device INTEGER REFERENCES device, place INTEGER, path TEXT,
                   port INTEGER, down INTEGER, PRIMARY KEY (host, device, place),
                   UNIQUE (host, path));
CREATE TABLE fault (id INTEGER PRIMARY KEY, function TEXT, device TEXT, host TEXT, at INTEGER,
                    for_good INTEGER, after INTEGER, code INTEGER, delay_ms INTEGER,
                    seen INTEGER);
CREATE TABLE settings (one INTEGER PRIMARY KEY CHECK (one = 1), version INTEGER, patch TEXT,
                       rate INTEGER, split_time INTEGER, background_time INTEGER, clock INTEGER,
                       clock_running INTEGER, next_session INTEGER);
)";

int64_t whole(uint64_t value) {
    return static_cast<int64_t>(value);
}

uint64_t natural(int64_t value) {
    return static_cast<uint64_t>(value);
}

}  // namespace

Store::Store(const std::string &path) : database_(path) {
    int64_t found = 0;
    {
        Statement version = database_.prepare("PRAGMA user_version");
        if (version.step()) found = version.number(0);
    }
    if (found == schema_version) return;
    if (found != 0) {
        throw StoreError(path + " has schema " + std::to_string(found) + ", this program needs " +
                         std::to_string(schema_version));
    }
    Transaction transaction(&database_);
    database_.execute(schema);
    database_.run("PRAGMA user_version = " + std::to_string(schema_version));
    transaction.commit();
}

void Store::save(World *world, const Faults &faults) {
    if (!world->changes.any()) return;
    Transaction transaction(&database_);
    for (const std::string &symid : world->changes.arrays) {
        const ArrayRecord &array = *world->array(symid);
        database_
            .prepare(
                "INSERT INTO array VALUES (?, ?, ?) ON CONFLICT (symid) DO UPDATE SET "
                "capacity = excluded.capacity, used = excluded.used")
            .bind(array.symid)
            .bind(whole(array.capacity))
            .bind(whole(array.used))
            .run();
    }
    save_devices(*world);
    save_pairs(*world);
    save_views(*world);
    save_rest(*world, faults);
    transaction.commit();
    world->changes = {};
}

void Store::save_devices(const World &world) {
    for (const int64_t id : world.changes.devices) {
        const Device &device = world.device(id);
        database_
            .prepare(
                "INSERT INTO device VALUES (?, ?, ?, ?, ?, ?, ?, ?) ON CONFLICT (id) DO "
                "UPDATE SET grp = excluded.grp, ldev = excluded.ldev")
            .bind(device.id)
            .bind(device.symid)
            .bind(device.name)
            .bind(whole(device.size))
            .bind(int64_t{device.bcv})
            .bind(whole(device.offset))
            .bind(device.group)
            .bind(device.ldev)
            .run();
    }
}

void Store::save_pairs(const World &world) {
    for (const int64_t id : world.changes.pairs) {
        const Pair &pair = world.pair(id);
        database_.prepare("INSERT OR REPLACE INTO pair VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)")
            .bind(pair.id)
            .bind(pair.primary)
            .bind(pair.bcv)
            .bind(static_cast<int64_t>(pair.state))
            .bind(pair.started)
            .bind(pair.ends)
            .bind(pair.background_until)
            .bind(whole(pair.tracks))
            .bind(int64_t{pair.established_before})
            .run();
    }
}

void Store::save_views(const World &world) {
    for (const auto &[host, device] : world.changes.views) {
        database_.prepare("DELETE FROM path WHERE host = ? AND device = ?")
            .bind(host)
            .bind(device)
            .run();
        const View *view = world.view(host, device);
        if (view == nullptr) continue;
        int64_t place = 0;
        for (const Path &one : view->paths) {
            database_.prepare("INSERT INTO path VALUES (?, ?, ?, ?, ?, ?)")
                .bind(host)
                .bind(device)
                .bind(place++)
                .bind(one.path)
                .bind(int64_t{one.port})
                .bind(int64_t{one.down})
                .run();
        }
    }
}

void Store::save_rest(const World &world, const Faults &faults) {
    for (const std::string &name : world.changes.hosts) {
        database_.prepare("DELETE FROM host WHERE name = ?").bind(name).run();
        const HostRecord *host = world.host(name);
        if (host == nullptr) continue;
        database_.prepare("INSERT INTO host VALUES (?, ?, ?)")
            .bind(host->name)
            .bind(host->socket)
            .bind(host->dev)
            .run();
    }
    if (world.changes.faults) {
        database_.run("DELETE FROM fault");
        for (const Fault &fault : faults.all()) {
            database_.prepare("INSERT INTO fault VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)")
                .bind(fault.id)
                .bind(fault.function)
                .bind(fault.device)
                .bind(fault.host)
                .bind(fault.at)
                .bind(int64_t{fault.for_good})
                .bind(int64_t{fault.after})
                .bind(int64_t{fault.code})
                .bind(int64_t{fault.delay_ms})
                .bind(fault.seen)
                .run();
        }
    }
    if (!world.changes.settings) return;
    const Settings &settings = world.settings();
    database_.prepare("INSERT OR REPLACE INTO settings VALUES (1, ?, ?, ?, ?, ?, ?, ?, ?)")
        .bind(int64_t{settings.version})
        .bind(settings.patch)
        .bind(whole(settings.rate))
        .bind(settings.split_time)
        .bind(settings.background_time)
        .bind(settings.clock)
        .bind(int64_t{settings.clock_running})
        .bind(int64_t{settings.next_session})
        .run();
}

void Store::load(World *world, Faults *faults) {
    load_devices(world);
    load_views(world);
    load_rest(world, faults);
}

void Store::load_devices(World *world) {
    Statement arrays = database_.prepare("SELECT symid, capacity, used FROM array");
    while (arrays.step()) {
        world->load(
            ArrayRecord{arrays.text(0), natural(arrays.number(1)), natural(arrays.number(2))});
    }
    Statement devices = database_.prepare(
        "SELECT id, symid, name, size, bcv, offset, grp, ldev FROM device ORDER BY id");
    while (devices.step()) {
        Device device;
        device.id = devices.number(0);
        device.symid = devices.text(1);
        device.name = devices.text(2);
        device.size = natural(devices.number(3));
        device.bcv = devices.number(4) != 0;
        device.offset = natural(devices.number(5));
        device.group = devices.text(6);
        device.ldev = devices.text(7);
        world->load(device);
    }
    Statement pairs = database_.prepare(
        "SELECT id, standard, bcv, state, started, ends, background_until, tracks, "
        "established_before FROM pair ORDER BY id");
    while (pairs.step()) {
        Pair pair;
        pair.id = pairs.number(0);
        pair.primary = pairs.number(1);
        pair.bcv = pairs.number(2);
        pair.state = static_cast<PairState>(pairs.number(3));
        pair.started = pairs.number(4);
        pair.ends = pairs.number(5);
        pair.background_until = pairs.number(6);
        pair.tracks = natural(pairs.number(7));
        pair.established_before = pairs.number(8) != 0;
        world->load(pair);
    }
}

void Store::load_views(World *world) {
    Statement hosts = database_.prepare("SELECT name, socket, dev FROM host");
    while (hosts.step()) world->load(HostRecord{hosts.text(0), hosts.text(1), hosts.text(2)});
    Statement paths = database_.prepare(
        "SELECT host, device, path, port, down FROM path ORDER BY host, device, place");
    View view;
    while (paths.step()) {
        if (view.host != paths.text(0) || view.device != paths.number(1)) {
            if (!view.paths.empty()) world->load(view);
            view = {paths.text(0), paths.number(1), {}};
        }
        view.paths.push_back({paths.text(2), paths.number(3) != 0, paths.number(4) != 0});
    }
    if (!view.paths.empty()) world->load(view);
}

void Store::load_rest(World *world, Faults *faults) {
    Statement rows = database_.prepare(
        "SELECT id, function, device, host, at, for_good, after, code, delay_ms, seen FROM fault "
        "ORDER BY id");
    while (rows.step()) {
        Fault fault;
        fault.id = rows.number(0);
        fault.function = rows.text(1);
        fault.device = rows.text(2);
        fault.host = rows.text(3);
        fault.at = rows.number(4);
        fault.for_good = rows.number(5) != 0;
        fault.after = rows.number(6) != 0;
        fault.code = static_cast<int>(rows.number(7));
        fault.delay_ms = static_cast<int>(rows.number(8));
        fault.seen = rows.number(9);
        faults->load(fault);
    }
    Statement row = database_.prepare(
        "SELECT version, patch, rate, split_time, background_time, clock, clock_running, "
        "next_session FROM settings");
    if (!row.step()) return;
    Settings settings;
    settings.version = static_cast<uint32_t>(row.number(0));
    settings.patch = row.text(1);
    settings.rate = natural(row.number(2));
    settings.split_time = row.number(3);
    settings.background_time = row.number(4);
    settings.clock = row.number(5);
    settings.clock_running = row.number(6) != 0;
    settings.next_session = static_cast<int32_t>(row.number(7));
    world->load(settings);
}

}  // namespace lab
