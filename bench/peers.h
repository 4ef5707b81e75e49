// The peers, each with its document behind a type that frees it, and loaded as its manual shows.
#ifndef VUTIL_BENCH_PEERS_H_
#define VUTIL_BENCH_PEERS_H_

#include <INIReader.h>
#include <SimpleIni.h>
#include <glib.h>
#include <iniparser/iniparser.h>

#include <boost/property_tree/ptree.hpp>
#include <memory>
#include <ostream>
#include <string>

#include "documents.h"

namespace vutil::bench {

struct GlibDeleter {
  void operator()(GKeyFile* file) const { g_key_file_free(file); }
  void operator()(gchar* text) const { g_free(text); }
};
using GlibDocument = std::unique_ptr<GKeyFile, GlibDeleter>;
struct GlibText {
  explicit GlibText(gchar* owned) : text(owned) {}
  friend std::ostream& operator<<(std::ostream& stream, const GlibText& glib) {
    return stream << glib.text.get();
  }
  std::unique_ptr<gchar, GlibDeleter> text;
};

using SimpleIniDocument = std::unique_ptr<CSimpleIniCaseA>;

using InihDocument = std::unique_ptr<INIReader>;

struct IniparserDeleter {
  void operator()(dictionary* file) const { iniparser_freedict(file); }
};
using IniparserDocument = std::unique_ptr<dictionary, IniparserDeleter>;

using BoostDocument = std::unique_ptr<boost::property_tree::ptree>;

GlibDocument load_glib(const std::string& path);
SimpleIniDocument load_simpleini(const std::string& path);
InihDocument load_inih(const std::string& path);
IniparserDocument load_iniparser(const std::string& path);
BoostDocument load_boost(const std::string& path);

// iniparser goes through the list of all keys for each key that it reads and for each section that
// it writes: 10 MB take it half a minute.
inline bool iniparser_copes_with(const Size& size) { return size.bytes <= MEDIUM.bytes; }

}  // namespace vutil::bench

#endif  // VUTIL_BENCH_PEERS_H_
