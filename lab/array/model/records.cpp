#include "lab/array/model/records.h"

namespace lab {

const char *name_of(PairState state) {
    switch (state) {
    case PairState::synchronising:
        return "synchronising";
    case PairState::synchronised:
        return "synchronised";
    case PairState::splitting:
        return "splitting";
    case PairState::split:
        return "split";
    case PairState::restoring:
        return "restoring";
    case PairState::restored:
        return "restored";
    }
    return "unknown";
}

const char *name_of(BcvAction action) {
    switch (action) {
    case BcvAction::full_establish:
        return "full establish";
    case BcvAction::split:
        return "split";
    case BcvAction::incremental_establish:
        return "incremental establish";
    case BcvAction::restore:
        return "restore";
    }
    return "unknown";
}

}  // namespace lab
