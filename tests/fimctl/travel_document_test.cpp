// The document in which a snapshot travels, and what is none or no good one.
#include "fimctl/travel_document.h"

#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "fimctl/digest.h"
#include "tests/fimctl/travel_fixture.h"

namespace {

using fimctl::TravelDocument;
using test::Ended;

class Document : public test::TwoHosts {
  protected:
    void SetUp() override {
        TwoHosts::SetUp();
        hand_out();
        text_ = test::read_file(file);
    }
    Ended import(const std::string &text) {
        test::write_file("/exchange/bad", text);
        const Ended ended = on_backup({"import", "/exchange/bad"});
        EXPECT_EQ(on_backup({"list", "--all"}).out, "no snapshots\n");
        return ended;
    }
    std::string replaced(const std::string &old, const std::string &by) {
        std::string text = text_;
        text.replace(text.find(old), old.size(), by);
        return text;
    }

    std::string text_;
};

TEST_F(Document, of_another_version_is_refused_and_named) {
    expect_refused(import(replaced("\"version\": 1", "\"version\": 2")),
                   "the document has version 2; this fimctl reads version 1",
                   "use the same version of fimctl on both hosts");
}

TEST_F(Document, with_a_changed_byte_is_refused) {
    expect_refused(import(replaced("00A1", "00A2")),
                   "the document is damaged: its checksum is that of another text",
                   "carry it again");
    expect_refused(import(replaced("HDEF-is_tgt=1", "HDEF-is_tgt=0")), "the document is damaged",
                   "carry it again");
}

TEST_F(Document, that_was_cut_short_is_refused_wherever_it_was_cut) {
    const size_t end = text_.rfind('}');
    for (size_t size = 1; size <= end; size += 37) {
        expect_refused(import(text_.substr(0, size)), "the document is damaged: it is cut short",
                       "carry it again");
    }
    expect_refused(import(""), "the document is damaged: it is empty", "carry it again");
}

TEST_F(Document, that_is_something_else_is_refused) {
    expect_refused(import("{\"a\": 1}"), "this is no snapshot that fimctl has exported",
                   "name the file that \"fimctl export\" has written");
    expect_refused(import("[1, 2]"), "this is no snapshot that fimctl has exported", "name the");
}

TEST_F(Document, that_lacks_a_field_is_refused) {
    auto json = nlohmann::ordered_json::parse(text_);
    json.erase("checksum");
    json.erase("uuid");
    json["checksum"] = "sha256:" + fimctl::sha256(json.dump());
    expect_refused(import(json.dump()), "the document is damaged: ", "carry it again");
}

TEST_F(Document, whose_checkpoint_belongs_to_another_place_is_refused) {
    auto document = fimctl::read_document(text_);
    document.snapshot.objects[0].fifs = "/etc";
    expect_refused(import(write_document(document)), "does not belong to it",
                   "export the snapshot again");
}

// The rebuild would remove it, as root.
TEST_F(Document, that_names_a_file_of_this_host_as_its_transfer_file_is_refused) {
    auto document = fimctl::read_document(text_);
    document.snapshot.objects[0].text +=
        "HDEF-CLONE_INFO_FILE=START\nTRANSFER_FILE=/var/mine\nHDEF-CLONE_INFO_FILE=END\n";
    expect_refused(import(write_document(document)), "/var/mine is no transfer file",
                   "export the snapshot again");
}

TEST_F(Document, whose_paths_lead_elsewhere_is_refused) {
    const auto good = fimctl::read_document(text_);
    const auto expect_strange = [&](const std::string &reason, const auto &change) {
        auto document = good;
        change(document.snapshot.objects[0]);
        expect_refused(import(write_document(document)), reason, "export the snapshot again");
    };
    using fimctl::ObjectRecord;
    expect_strange("leads out of its copy",
                   [](ObjectRecord &object) { object.inside = "/../../etc"; });
    expect_strange("it holds a name of two lines",
                   [](ObjectRecord &object) { object.source = "/data\n   2  released"; });
    expect_strange("../../etc is no name of a disk group",
                   [](ObjectRecord &object) { object.text += "HDEF-vol_group=../../etc\n"; });
    expect_strange("-Z is no name of a disk group",
                   [](ObjectRecord &object) { object.vol_name = "-Z"; });
    expect_strange("does not belong to it",
                   [](ObjectRecord &object) { object.text += "HDEF-restore=1\n"; });
}

TEST_F(Document, that_somebody_else_could_write_is_refused) {
    for (const int mode : {0660, 0602}) {
        ASSERT_EQ(chmod(file.c_str(), static_cast<mode_t>(mode)), 0);
        const Ended ended = on_backup({"import", file});
        EXPECT_EQ(ended.status, 13) << ended.err;
        EXPECT_NE(ended.err.find("others than root can have written it"), std::string::npos);
        EXPECT_NE(ended.err.find("chmod 600 " + file), std::string::npos) << ended.err;
    }
    ASSERT_EQ(chmod(file.c_str(), 0644), 0);
    ASSERT_EQ(chown(file.c_str(), 12, 0), 0);
    EXPECT_EQ(on_backup({"import", file}).status, 13);
    ASSERT_EQ(chown(file.c_str(), 0, 0), 0);
    EXPECT_EQ(on_backup({"import", file}).status, 0);
}

TEST_F(Document, may_be_laid_out_anew) {
    test::write_file(file, nlohmann::ordered_json::parse(text_).dump());
    EXPECT_EQ(on_backup({"import", file}).status, 0);
}

TEST(TravelDocument, keeps_bytes_that_are_no_text) {
    TravelDocument document;
    document.origin_host = "client1";
    document.snapshot.objects.resize(1);
    document.snapshot.objects[0].source = "/data/\xff\xfe and \n more";
    document.snapshot.objects[0].text = "HDEF-fs_path=/data/\xff\n";
    document.snapshot.frozen_ms = 12.345678901234567;
    const auto read = fimctl::read_document(write_document(document));
    EXPECT_EQ(read.snapshot.objects[0].source, document.snapshot.objects[0].source);
    EXPECT_EQ(read.snapshot.objects[0].text, document.snapshot.objects[0].text);
    EXPECT_EQ(read.snapshot.frozen_ms, document.snapshot.frozen_ms);
}

TEST(Sha256, is_that_of_the_published_examples) {
    EXPECT_EQ(fimctl::sha256(""),
              "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(fimctl::sha256("abc"),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(fimctl::sha256("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
    EXPECT_EQ(fimctl::sha256(std::string(1000000, 'a')),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

}  // namespace
