#include "SamplePackage.h"

#include <zip.h>

#include <utility>
#include <vector>

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

bool WriteZip(const std::string& path, const Entries& entries) {
  // libzip reads the buffers when the archive closes: they live until then.
  int error = 0;
  zip_t* archive = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
  if (!archive) return false;
  for (const auto& [name, content] : entries) {
    zip_source_t* source = zip_source_buffer(archive, content.data(), content.size(), 0);
    if (!source || zip_file_add(archive, name.c_str(), source, ZIP_FL_ENC_UTF_8) < 0) {
      if (source) zip_source_free(source);
      zip_discard(archive);
      return false;
    }
  }
  return zip_close(archive) == 0;
}

}  // namespace

bool WriteSamplePlugin(const std::string& path, int revision) {
  return WriteZip(path, {{"plugin.js", "// physics for the demo game, revision " +
                                           std::to_string(revision) + "\n"}});
}

bool WriteSamplePackage(const std::string& path) {
  const Entries entries = {
      {"game.config.json",
       "{\n  \"deviceOrientation\" : \"portrait\",\n  \"showStatusBar\" : false,\n"
       "  \"runtimeVersion\" : \"1.0.0\",\n"
       "  \"plugins\" : {\"physics\" : {\"provider\" : \"tavo-physics\", \"version\" : "
       "\"1.0\"}}\n}\n"},
      {"main.js",
       "// The demo game: a counter that the reference engine never renders.\n"
       "let taps = 0;\nfunction onTap() { taps += 1; }\n"},
      {"assets/levels.json", "[{\"level\":1,\"goal\":10},{\"level\":2,\"goal\":25}]\n"},
      {"assets/strings/en.json", "{\"title\":\"Tap Tap\",\"start\":\"Start\"}\n"},
  };
  return WriteZip(path, entries);
}
