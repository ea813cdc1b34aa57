#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

// Builds real zip archives for tests.
struct ZipEntry {
  std::string name;  // may hold "../" or start with "/" for hostile archives
  std::string data;  // ignored for directories and symbolic links
  bool isDirectory = false;
  bool isSymlink = false;  // `data` is the link target
};

// Writes a zip archive at `path`; aborts the test on failure.
void MakeZip(const std::string& path, const std::vector<ZipEntry>& entries);
// Rewrites the uncompressed size that both headers of the archive's first entry declare, making
// an archive that lies about what it unpacks to.
void DeclareEntrySize(const std::string& zip, uint32_t size);
// A game package: "game.config.json" holding `config` plus the given extra files.
void MakeGamePackage(const std::string& path, const std::string& config,
                     const std::vector<std::pair<std::string, std::string>>& files = {});
