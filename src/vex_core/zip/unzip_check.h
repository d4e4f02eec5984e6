#pragma once
// Which archives `Unzip` takes: what the reader takes, without names of its own temporary files. For `Unzip` and for
// vexctl, which tells beforehand.

#include "vex_core/zip/zip_reader.h"

#include <memory>
#include <string>
#include <vector>

namespace VexCore {

/// Null with one line in `error`, as `ZipArchive::Open`.
std::shared_ptr<const ZipArchive> OpenToUnzip(const std::string& path, const ZipLimits& limits, std::string& error);

/// Whether it would be taken by its headers; every reason why not, else, as far as one does not hide another. The
/// archive is null where the reader refuses it.
std::shared_ptr<const ZipArchive> OpenToUnzip(const std::string& path, const ZipLimits& limits,
                                              std::vector<std::string>& reasons);

/// Reads all data of all entries, which `Unzip` does while it writes them: a line for each that is damaged.
std::vector<std::string> DamagedEntries(const ZipArchive& archive);

} // namespace VexCore
