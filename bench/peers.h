// The library and its peers, each a type with the same members:
//
//   NAME           what the tables call it
//   Text           a text that stays when the document changes: its own, or a copy of what it gives
//   Peer(path)     loads a file, as the manual shows
//   text()         the document as text, if there is a call for that
//   get(name, out) a Text, int, double or bool, by a call with a default or a missing-key error
#ifndef VUTIL_BENCH_PEERS_H_
#define VUTIL_BENCH_PEERS_H_

#include <INIReader.h>
#include <SimpleIni.h>
#include <glib.h>
#include <iniparser/iniparser.h>

#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>

#include "documents.h"
#include "vutil/keyfile.h"

namespace vutil::bench {

// Where a value stands, in the forms that the interfaces take: made before the clock runs.
struct Name {
  Name(const std::string& in, const std::string& of)
      : section(in), key(of), with_colon(in + ":" + of), with_dot(in + "." + of) {}
  std::string section, key, with_colon;
  boost::property_tree::path with_dot;
};

template <auto FREE>
struct Deleter {
  void operator()(auto* owned) const { FREE(owned); }
};
using CText = std::unique_ptr<char, Deleter<free>>;  // GLib's, too: its g_free() is free()

struct Ours {
  static constexpr const char* NAME = "ours";
  using Text = std::string;
  explicit Ours(const std::string& path) : file(path, MODE) {}
  Text text() const { return file.toString(); }
  void get(const Name& n, Text& out) { require(file.getString(n.section, n.key, out, {}), NAME); }
  void get(const Name& n, int& out) { require(file.getInteger(n.section, n.key, out, {}), NAME); }
  void get(const Name& n, double& out) { require(file.getDouble(n.section, n.key, out, {}), NAME); }
  void get(const Name& n, bool& out) { require(file.getBoolean(n.section, n.key, out, {}), NAME); }
  void set_and_save(const Name& n, int value) {
    require(file.setInteger(n.section, n.key, value), NAME);
  }

  KeyFile file;
};

// Replaces a file durably: of the peers, GLib alone can.
inline void replace_file_with_glib(const std::string& path, std::string_view text) {
  constexpr auto FLAGS = static_cast<GFileSetContentsFlags>(G_FILE_SET_CONTENTS_CONSISTENT |
                                                            G_FILE_SET_CONTENTS_DURABLE);
  const auto length = static_cast<gssize>(text.size());
  require(g_file_set_contents_full(path.c_str(), text.data(), length, FLAGS, MODE, nullptr) != 0,
          "writing with GLib");
}

struct Glib {
  static constexpr const char* NAME = "GLib";
  using Text = CText;
  explicit Glib(const std::string& loaded) : path(loaded) {
    require(g_key_file_load_from_file(file.get(), path.c_str(), G_KEY_FILE_NONE, nullptr) != 0,
            NAME);
  }
  Text text() const { return Text(g_key_file_to_data(file.get(), nullptr, nullptr)); }
  void get(const Name& n, Text& out) const {
    out.reset(g_key_file_get_string(file.get(), n.section.c_str(), n.key.c_str(), &error));
  }
  void get(const Name& n, int& out) const {
    out = g_key_file_get_integer(file.get(), n.section.c_str(), n.key.c_str(), &error);
  }
  void get(const Name& n, double& out) const {
    out = g_key_file_get_double(file.get(), n.section.c_str(), n.key.c_str(), &error);
  }
  void get(const Name& n, bool& out) const {
    out = g_key_file_get_boolean(file.get(), n.section.c_str(), n.key.c_str(), &error) != 0;
  }
  void set_and_save(const Name& n, int value) const {
    g_key_file_set_integer(file.get(), n.section.c_str(), n.key.c_str(), value);
    gsize length = 0;
    const Text text(g_key_file_to_data(file.get(), &length, nullptr));
    replace_file_with_glib(path, {text.get(), length});
  }

  std::string path;
  mutable GError* error = nullptr;
  std::unique_ptr<GKeyFile, Deleter<g_key_file_free>> file{g_key_file_new()};
};

struct SimpleIni {
  static constexpr const char* NAME = "SimpleIni";
  using Text = std::string;
  explicit SimpleIni(const std::string& path) {
    require(file.LoadFile(path.c_str()) == SI_OK, NAME);
  }
  Text text() const {
    std::string text;
    require(file.Save(text) == SI_OK, NAME);
    return text;
  }
  void get(const Name& n, Text& out) const {
    out = file.GetValue(n.section.c_str(), n.key.c_str(), "");
  }
  void get(const Name& n, int& out) const {
    out = static_cast<int>(file.GetLongValue(n.section.c_str(), n.key.c_str()));
  }
  void get(const Name& n, double& out) const {
    out = file.GetDoubleValue(n.section.c_str(), n.key.c_str());
  }
  void get(const Name& n, bool& out) const {
    out = file.GetBoolValue(n.section.c_str(), n.key.c_str());
  }

  CSimpleIniCaseA file;
};

struct Inih {
  static constexpr const char* NAME = "inih";
  using Text = std::string;
  explicit Inih(const std::string& path) : file(path) { require(file.ParseError() == 0, NAME); }
  void get(const Name& n, Text& out) const { out = file.Get(n.section, n.key, ""); }
  void get(const Name& n, int& out) const {
    out = static_cast<int>(file.GetInteger(n.section, n.key, 0));
  }
  void get(const Name& n, double& out) const { out = file.GetReal(n.section, n.key, 0); }
  void get(const Name& n, bool& out) const { out = file.GetBoolean(n.section, n.key, false); }

  INIReader file;
};

struct Iniparser {
  static constexpr const char* NAME = "iniparser";
  using Text = std::string;
  explicit Iniparser(const std::string& path) : file(iniparser_load(path.c_str())) {
    require(file != nullptr, NAME);
  }
  CText text() const {
    char* text = nullptr;
    size_t size = 0;
    FILE* const stream = open_memstream(&text, &size);
    iniparser_dump_ini(file.get(), stream);
    require(fclose(stream) == 0, NAME);
    return CText(text);
  }
  void get(const Name& n, Text& out) const {
    out = iniparser_getstring(file.get(), n.with_colon.c_str(), "");
  }
  void get(const Name& n, int& out) const {
    out = iniparser_getint(file.get(), n.with_colon.c_str(), 0);
  }
  void get(const Name& n, double& out) const {
    out = iniparser_getdouble(file.get(), n.with_colon.c_str(), 0);
  }
  void get(const Name& n, bool& out) const {
    out = iniparser_getboolean(file.get(), n.with_colon.c_str(), 0) == 1;
  }

  std::unique_ptr<dictionary, Deleter<iniparser_freedict>> file;
};

struct Boost {
  static constexpr const char* NAME = "Boost";
  using Text = std::string;
  explicit Boost(const std::string& path) { boost::property_tree::read_ini(path, file); }
  Text text() const {
    std::ostringstream stream;
    boost::property_tree::write_ini(stream, file);
    return std::move(stream).str();
  }
  template <typename T>
  void get(const Name& n, T& out) const {
    out = file.get(n.with_dot, T());
  }

  boost::property_tree::ptree file;
};

// Calls `job` with an Is<Peer> for each.
template <typename Peer>
struct Is {};
void for_each_peer(auto job) {
  const auto call = [&](auto... peers) { (job(peers), ...); };
  call(Is<Ours>(), Is<Glib>(), Is<SimpleIni>(), Is<Inih>(), Is<Iniparser>(), Is<Boost>());
}

// iniparser goes through the list of all keys for each key that it reads and for each section that
// it writes: 10 MB take it half a minute.
template <typename Peer>
constexpr bool copes_with(const Size& size) {
  return !std::is_same_v<Peer, Iniparser> || size.bytes < TEN_MB.bytes;
}

}  // namespace vutil::bench

#endif  // VUTIL_BENCH_PEERS_H_
