// Settings changed and saved durably. GLib is the one peer that can.
#include <memory>
#include <string>

#include "documents.h"
#include "groups.h"
#include "peers.h"
#include "replacing.h"
#include "vutil/keyfile.h"

namespace vutil::bench {
namespace {

void set_and_save_with_glib(GKeyFile* file, const std::string& path, const std::string& section,
                            const std::string& key, int value) {
  g_key_file_set_integer(file, section.c_str(), key.c_str(), value);
  gsize length = 0;
  const GlibText text(g_key_file_to_data(file, &length, nullptr));
  replace_file_with_glib(path, {text.text.get(), length});
}

// A key that is there gets another value. The floor is given the text ready-made.
void add_existing_key(Suite& suite, const std::string& directory, const std::string& variant,
                      size_t keys) {
  if (!suite.begin_job("set and save, " + variant)) return;
  const std::string path = directory + "/" + variant;
  put(path, ordered_document(keys));
  const std::string section = section_name(1);
  const std::string key = key_name(1);
  auto ours = std::make_shared<KeyFile>(path, MODE);
  suite.add("ours", [ours, section, key, n = 0]() mutable {
    require(ours->setInteger(section, key, ++n % 1000), "setInteger");
  });
  suite.add("floor", [path, directory, text = ours->toString()] {
    replace_file_with_bare_calls(path, directory, text);
  });
  suite.add("GLib", [glib = std::shared_ptr(load_glib(path)), path, section, key, n = 0]() mutable {
    set_and_save_with_glib(glib.get(), path, section, key, ++n % 1000);
  });
}

// A key is added in the middle of a document that is freshly read for each iteration: so it has the
// same size every time.
void add_new_key(Suite& suite, const std::string& directory, const std::string& variant,
                 size_t keys) {
  if (!suite.begin_job("set and save, " + variant)) return;
  const std::string path = directory + "/" + variant;
  const std::string text = ordered_document(keys);
  const std::string section = section_name(keys / 2);
  const std::string key = key_name(keys / 2) + " new";
  suite.add_prepared(
      "ours",
      [path, text] {
        put(path, text);
        return std::make_unique<KeyFile>(path, MODE);
      },
      [section, key](std::unique_ptr<KeyFile>& file) {
        require(file->setInteger(section, key, 1), "setInteger");
      });
  suite.add("floor",
            [path, directory, text] { replace_file_with_bare_calls(path, directory, text); });
  suite.add_prepared(
      "GLib",
      [path, text] {
        put(path, text);
        return load_glib(path);
      },
      [path, section, key](GlibDocument& file) {
        set_and_save_with_glib(file.get(), path, section, key, 1);
      });
}

}  // namespace

void add_saves(Suite& suite, const std::string& directory, const std::string& directory_on_disk) {
  suite.begin_group("Saves");
  for (const Size& size : {SMALL, MEDIUM}) {
    add_existing_key(suite, directory, std::string(size.name) + " on tmpfs", keys_for(size.bytes));
  }
  add_existing_key(suite, directory, "one of 30000 keys on tmpfs", 30'000);
  add_new_key(suite, directory, "a new key among 30000 on tmpfs", 30'000);
  for (const Size& size : {SMALL, MEDIUM}) {
    add_existing_key(suite, directory_on_disk, std::string(size.name) + " on disk",
                     keys_for(size.bytes));
  }
}

}  // namespace vutil::bench
