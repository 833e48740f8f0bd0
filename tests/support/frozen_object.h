// An object's record with its capture files, and small makers of what hangs on it.
#pragma once

#include <cstdlib>
#include <string>

#include "include/records.h"
#include "method/capture.h"
#include "method/text.h"

namespace test {

// Owns a zeroed record with two capture files; the files go with it.
class FrozenObject {
  public:
    FrozenObject() : h_(tf::make_zeroed<hdef>()) { tf::make_capture_files(h_); }
    ~FrozenObject() {
        tf::remove_capture_files(h_);
        free(h_->out_file);
        free(h_->err_file);
        while (h_->pminfo_list != nullptr) {
            prim_mir_info *const pm = h_->pminfo_list;
            h_->pminfo_list = pm->next;
            free(pm);
        }
        free(h_);
    }
    FrozenObject(const FrozenObject &) = delete;
    FrozenObject &operator=(const FrozenObject &) = delete;

    hdef *get() const { return h_; }
    hdef *operator->() const { return h_; }
    std::string out() const { return h_->out_file; }
    std::string err() const { return h_->err_file; }

    // Appends a device with these paths.
    prim_mir_info *add_device(const std::string &primary, const std::string &bcv = "") {
        prim_mir_info **end = &h_->pminfo_list;
        while (*end != nullptr) end = &(*end)->next;
        *end = tf::make_zeroed<prim_mir_info>();
        tf::put((*end)->dev_raw_device, primary.c_str());
        tf::put((*end)->p_dev_raw_device, primary.c_str());
        tf::put((*end)->bcv_pdevname, bcv.c_str());
        return *end;
    }

  private:
    hdef *h_;
};

}  // namespace test
