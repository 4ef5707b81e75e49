#include "peers.h"

#include <boost/property_tree/ini_parser.hpp>

#include "suite.h"

namespace vutil::bench {

GlibDocument load_glib(const std::string& path) {
  GlibDocument file(g_key_file_new());
  require(g_key_file_load_from_file(file.get(), path.c_str(), G_KEY_FILE_NONE, nullptr) != 0,
          "loading with GLib");
  return file;
}

SimpleIniDocument load_simpleini(const std::string& path) {
  auto file = std::make_unique<CSimpleIniCaseA>();
  require(file->LoadFile(path.c_str()) == SI_OK, "loading with SimpleIni");
  return file;
}

InihDocument load_inih(const std::string& path) {
  auto file = std::make_unique<INIReader>(path);
  require(file->ParseError() == 0, "loading with inih");
  return file;
}

IniparserDocument load_iniparser(const std::string& path) {
  IniparserDocument file(iniparser_load(path.c_str()));
  require(file != nullptr, "loading with iniparser");
  return file;
}

BoostDocument load_boost(const std::string& path) {
  auto file = std::make_unique<boost::property_tree::ptree>();
  boost::property_tree::read_ini(path, *file);
  return file;
}

}  // namespace vutil::bench
