// Documents read from a file and turned into text.
#include <boost/property_tree/ini_parser.hpp>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>

#include "documents.h"
#include "groups.h"
#include "peers.h"
#include "vutil/keyfile.h"

namespace vutil::bench {
namespace {

void add_construct(Suite& suite, const std::string& directory, const Size& size, bool ordered) {
  const std::string variant = std::string(size.name) + (ordered ? " in order" : " shuffled");
  if (!suite.begin_job("construct, " + variant)) return;
  const std::string path = directory + "/" + variant;
  const size_t keys = keys_for(size.bytes);
  put(path, ordered ? ordered_document(keys) : shuffled_document(keys));
  suite.add("ours", [path] { benchmark::DoNotOptimize(KeyFile(path, MODE)); });
  suite.add("GLib", [path] { benchmark::DoNotOptimize(load_glib(path)); });
  suite.add("SimpleIni", [path] { benchmark::DoNotOptimize(load_simpleini(path)); });
  suite.add("inih", [path] { benchmark::DoNotOptimize(load_inih(path)); });
  if (iniparser_copes_with(size)) {
    suite.add("iniparser", [path] { benchmark::DoNotOptimize(load_iniparser(path)); });
  }
  suite.add("Boost", [path] { benchmark::DoNotOptimize(load_boost(path)); });
}

std::string text_of_boost(const boost::property_tree::ptree& file) {
  std::ostringstream stream;
  boost::property_tree::write_ini(stream, file);
  return std::move(stream).str();
}

void write_iniparser_text(const dictionary* file) {
  char* text = nullptr;
  size_t size = 0;
  FILE* const stream = open_memstream(&text, &size);
  iniparser_dump_ini(file, stream);
  require(fclose(stream) == 0, "saving with iniparser");
  benchmark::DoNotOptimize(text);
  free(text);
}

void add_serialise(Suite& suite, const std::string& directory, const Size& size) {
  if (!suite.begin_job("toString, " + std::string(size.name))) return;
  const std::string path = directory + "/serialised " + size.name;
  put(path, ordered_document(keys_for(size.bytes)));
  suite.add("ours", [file = std::make_shared<KeyFile>(path, MODE)] {
    benchmark::DoNotOptimize(file->toString());
  });
  suite.add("GLib", [file = std::shared_ptr(load_glib(path))] {
    benchmark::DoNotOptimize(GlibText(g_key_file_to_data(file.get(), nullptr, nullptr)));
  });
  suite.add("SimpleIni", [file = std::shared_ptr(load_simpleini(path))] {
    std::string text;
    require(file->Save(text) == SI_OK, "saving with SimpleIni");
    benchmark::DoNotOptimize(text);
  });
  if (iniparser_copes_with(size)) {
    suite.add("iniparser",
              [file = std::shared_ptr(load_iniparser(path))] { write_iniparser_text(file.get()); });
  }
  suite.add("Boost", [file = std::shared_ptr(load_boost(path))] {
    benchmark::DoNotOptimize(text_of_boost(*file));
  });
}

void add_ours(Suite& suite, const std::string& directory, const std::string& variant,
              std::string (*make)(size_t), size_t count) {
  if (!suite.begin_job("construct, " + variant)) return;
  const std::string path = directory + "/" + variant;
  put(path, make(count));
  suite.add("ours", [path] { benchmark::DoNotOptimize(KeyFile(path, MODE)); });
}

}  // namespace

void add_documents(Suite& suite, const std::string& directory) {
  suite.begin_group("Documents");
  for (const bool ordered : {true, false}) {
    for (const Size& size : {SMALL, MEDIUM, LARGE}) add_construct(suite, directory, size, ordered);
  }
  for (const Size& size : {SMALL, MEDIUM, LARGE}) add_serialise(suite, directory, size);
}

void add_large_documents(Suite& suite, const std::string& directory) {
  suite.begin_group("Growth: ten times the document should take about ten times as long");
  for (const Size& size : {LARGE, HUGE_SIZE}) {
    add_ours(suite, directory, std::string(size.name) + " of ordered keys", ordered_document,
             keys_for(size.bytes));
  }
  for (const size_t count : {10'000u, 100'000u}) {
    const std::string number = std::to_string(count);
    add_ours(suite, directory, number + " shuffled keys of a section", keys_document, count);
    add_ours(suite, directory, number + " shuffled sections", sections_document, count);
    add_ours(suite, directory, number + " times the same key", same_key_document, count);
    add_ours(suite, directory, number + " escaped markers in a line", escaped_document, count);
  }
}

}  // namespace vutil::bench
