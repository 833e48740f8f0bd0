// The checkpoint text: rebuilt, and where that succeeds written again, both against a model of it.
// A second rebuild of what was written gives the same text.
//
//     Input: a checkpoint text.
#include "fuzz/support/checkpoint.h"
#include "fuzz/support/finding.h"
#include "fuzz/support/input.h"
#include "fuzz/support/text_model.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text = fuzz::text_of(data, size).c_str();
    const fuzz::Expected expected = fuzz::expected_rebuild(text);
    const fuzz::Rebuilt first = fuzz::rebuild_and_write(text, expected.deleted);
    if (first.status != expected.status) {
        fuzz::finding("status %d and not %d for\n%s", first.status, expected.status, text.c_str());
    }
    if (first.text != expected.text) {
        fuzz::finding("rebuilt as\n%s\nand not\n%s", first.text.c_str(), expected.text.c_str());
    }
    if (first.clone_information != expected.clone_information) {
        fuzz::finding("handed over\n%s\nand not\n%s", first.clone_information.c_str(),
                      expected.clone_information.c_str());
    }
    if (first.status != 0) return 0;
    const std::string handed_over = fuzz::with_additions(first.text, first.additions);
    const fuzz::Rebuilt second = fuzz::rebuild_and_write(handed_over);
    if (second.status != 0) {
        // What the text said of the alternate host behind a device now stands in front of it, and
        // may be what refuses that device.
        if (first.additions.is_tgt != 0) return 0;
        fuzz::finding("what a checkpoint wrote cannot be rebuilt:\n%s", handed_over.c_str());
    }
    if (first.text != second.text) {
        fuzz::finding("not stable:\n%s\nand then\n%s", first.text.c_str(), second.text.c_str());
    }
    return 0;
}
