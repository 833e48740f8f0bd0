// The document in which a snapshot travels to the backup host and back: one JSON object with a
// version and a checksum.
//
// Out it carries the checkpoint texts, marked for the backup host, with the contents of the
// clone-information file; back the texts as the backup host left them.
#pragma once

#include <cstdint>
#include <string>

#include "fimctl/catalogue.h"

namespace fimctl {

enum class Direction { out, back };

struct TravelDocument {
    Direction direction = Direction::out;
    std::string origin_host;  // the primary host, and the snapshot's number there
    int64_t origin_id = 0;
    std::string writer;  // the host that wrote the document
    // uuid, created, config, cut, exports and the state on the writer's side; of each object what
    // it is, its text and its pairs.
    SnapshotRecord snapshot;
};

std::string write_document(const TravelDocument &document);

// Throws Failure (usage) for what is no such document, has a version that is not known here, is
// damaged or was cut short.
TravelDocument read_document(const std::string &text);

}  // namespace fimctl
