#include "support/TestZip.h"

#include <gtest/gtest.h>
#include <zip.h>

#include <cstdlib>
#include <cstring>

#include "support/TestSupport.h"

void MakeZip(const std::string& path, const std::vector<ZipEntry>& entries) {
  int err = 0;
  zip_t* archive = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &err);
  ASSERT_NE(archive, nullptr) << "zip_open " << path << " error " << err;
  for (const auto& entry : entries) {
    if (entry.isDirectory) {
      ASSERT_GE(zip_dir_add(archive, entry.name.c_str(), ZIP_FL_ENC_UTF_8), 0);
      continue;
    }
    // libzip reads the data when the archive is closed, so each buffer is copied and handed over.
    // It takes no ownership of an empty buffer, so an empty entry gets none.
    void* copy = nullptr;
    if (!entry.data.empty()) {
      copy = std::malloc(entry.data.size());
      std::memcpy(copy, entry.data.data(), entry.data.size());
    }
    zip_source_t* source = zip_source_buffer(archive, copy, entry.data.size(), copy ? 1 : 0);
    ASSERT_NE(source, nullptr);
    const zip_int64_t index =
        zip_file_add(archive, entry.name.c_str(), source, ZIP_FL_ENC_UTF_8 | ZIP_FL_OVERWRITE);
    ASSERT_GE(index, 0) << zip_strerror(archive);
    if (entry.isSymlink) {
      const zip_uint32_t mode = 0120777u << 16;  // S_IFLNK | 0777 in the high bits
      ASSERT_EQ(zip_file_set_external_attributes(archive, static_cast<zip_uint64_t>(index), 0,
                                                 ZIP_OPSYS_UNIX, mode),
                0);
    }
  }
  ASSERT_EQ(zip_close(archive), 0) << zip_strerror(archive);
}

void MakeGamePackage(const std::string& path, const std::string& config,
                     const std::vector<std::pair<std::string, std::string>>& files) {
  std::vector<ZipEntry> entries{{"game.config.json", config}};
  for (const auto& [name, data] : files) entries.push_back({name, data});
  MakeZip(path, entries);
}

void DeclareEntrySize(const std::string& zip, uint32_t size) {
  std::string bytes = ReadFile(zip);
  for (const auto& [signature, offset] :
       {std::pair{std::string("PK\x03\x04", 4), 22}, std::pair{std::string("PK\x01\x02", 4), 24}}) {
    const size_t at = bytes.find(signature);
    ASSERT_NE(at, std::string::npos);
    for (int i = 0; i < 4; ++i) bytes[at + offset + i] = static_cast<char>(size >> (8 * i));
  }
  WriteFile(zip, bytes);
}
