// The array's state on disk: one SQLite file, changed in transactions, with a schema version.
#pragma once

#include <string>

#include "lab/array/model/faults.h"
#include "lab/array/model/world.h"
#include "lab/array/store/database.h"

namespace lab {

class Store {
  public:
    // Opens the file and makes the tables when it is new. StoreError when it is of a schema that
    // this program does not know.
    explicit Store(const std::string &path);

    void load(World *world, Faults *faults);
    // Writes everything that world.changes names in one transaction and clears it. On StoreError
    // nothing is written and the changes stay noted.
    void save(World *world, const Faults &faults);

  private:
    void save_devices(const World &world);
    void save_pairs(const World &world);
    void save_views(const World &world);
    void save_rest(const World &world, const Faults &faults);
    void load_devices(World *world);
    void load_views(World *world);
    void load_rest(World *world, Faults *faults);

    Database database_;
};

constexpr int64_t schema_version = 1;

}  // namespace lab
