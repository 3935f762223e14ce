// PhotoWriter: saves photos as files in one folder, each written under a temporary name and then
// renamed, so that nobody (the daemon reading the descriptor's file, a user) ever sees a partial
// photo under its final name. Writes from the Photo's own buffer: one copy, into the page cache.
// Thread-safety: Save may be called from several threads for distinct indexes.
#pragma once

#include <cstdint>
#include <string>

#include "photo_source.h"

namespace QUEX::Tandra::CameraApp {

class PhotoWriter {
public:
    // Files are named <folder>/<prefix><number, 4 digits from 0001><photo's extension>.
    explicit PhotoWriter(std::string folder, std::string prefix = "photo-");

    // Creates the folder when missing; false with a sentence for the user otherwise.
    bool Prepare(std::string* error) const;
    // Saves photo number index (0-based); its path in *path. An existing file of that name is
    // replaced.
    bool Save(uint32_t index, const Photo& photo, std::string* path, std::string* error) const;
    std::string PathFor(uint32_t index, const std::string& extension) const;

private:
    std::string folder_;
    std::string prefix_;
};

}  // namespace QUEX::Tandra::CameraApp
