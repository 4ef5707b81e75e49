// Values taken out of a document: always the same one, or from all over the document.
#include <strings.h>

#include <array>
#include <charconv>
#include <iomanip>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "documents.h"
#include "groups.h"
#include "peers.h"
#include "vutil/keyfile.h"

namespace vutil::bench {
namespace {

// Where a value stands, in the forms that the interfaces take: made before the clock runs.
struct Name {
  std::string section;
  std::string key;
  std::string with_colon;
  boost::property_tree::path with_dot;
};
using Names = std::vector<Name>;

// The floor looks a key up in hash tables, without a lock, and reads the text where it stands.
using Tables = std::unordered_map<std::string, std::unordered_map<std::string, std::string>>;

// The same document in all forms.
struct Documents {
  explicit Documents(const std::string& path)
      : ours(path, MODE),
        glib(load_glib(path)),
        simpleini(load_simpleini(path)),
        inih(load_inih(path)),
        iniparser(load_iniparser(path)),
        boost(load_boost(path)) {
    for (const auto& [section, keys] : *boost) {
      for (const auto& [key, value] : keys) tables[section][key] = value.data();
    }
  }

  const std::string& text(const Name& name) const {
    return tables.find(name.section)->second.find(name.key)->second;
  }

  KeyFile ours;
  GlibDocument glib;
  SimpleIniDocument simpleini;
  InihDocument inih;
  IniparserDocument iniparser;
  BoostDocument boost;
  Tables tables;
};

// One job: a value of one type, for each of some names in turn.
class Getter {
 public:
  Getter(Suite& suite, std::shared_ptr<Documents> documents, Names names)
      : suite_(suite), documents_(std::move(documents)), names_(std::move(names)) {}

  // `get` takes the documents and a name, and gives what `who` finds there: the right value, or
  // the program ends.
  template <typename Get>
  void add(const std::string& who, Get get) {
    for (const Name& name : names_) {
      std::ostringstream found;
      found << std::boolalpha << std::setprecision(10) << get(*documents_, name);
      require(found.str() == documents_->text(name), ("getting with " + who).c_str());
    }
    suite_.add(who, [documents = documents_, names = names_, get, next = size_t{0}]() mutable {
      benchmark::DoNotOptimize(get(*documents, names[next]));
      if (++next == names.size()) next = 0;
    });
  }

 private:
  Suite& suite_;
  std::shared_ptr<Documents> documents_;
  Names names_;
};

// Each gives a text of its own, which stays when the document changes.
void add_strings(Getter job) {
  job.add("ours", [value = std::string()](Documents& all, const Name& name) mutable {
    require(all.ours.getString(name.section, name.key, value, ""), "getString");
    return value.data();
  });
  job.add("floor", [value = std::string()](Documents& all, const Name& name) mutable {
    value = all.text(name);
    return value.data();
  });
  job.add("GLib", [](Documents& all, const Name& name) {
    return GlibText(
        g_key_file_get_string(all.glib.get(), name.section.c_str(), name.key.c_str(), nullptr));
  });
  job.add("SimpleIni", [value = std::string()](Documents& all, const Name& name) mutable {
    value = all.simpleini->GetValue(name.section.c_str(), name.key.c_str());
    return value.data();
  });
  job.add("inih", [](Documents& all, const Name& name) {
    return all.inih->Get(name.section, name.key, "");
  });
  job.add("iniparser", [value = std::string()](Documents& all, const Name& name) mutable {
    value = iniparser_getstring(all.iniparser.get(), name.with_colon.c_str(), "");
    return value.data();
  });
  job.add("Boost",
          [](Documents& all, const Name& name) { return all.boost->get(name.with_dot, ""); });
}

template <typename Number>
Number parse(const std::string& text) {
  Number value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

void add_integers(Getter job) {
  job.add("ours", [](Documents& all, const Name& name) {
    int value = 0;
    require(all.ours.getInteger(name.section, name.key, value, 0), "getInteger");
    return value;
  });
  job.add("floor", [](Documents& all, const Name& name) { return parse<int>(all.text(name)); });
  job.add("GLib", [](Documents& all, const Name& name) {
    return g_key_file_get_integer(all.glib.get(), name.section.c_str(), name.key.c_str(), nullptr);
  });
  job.add("SimpleIni", [](Documents& all, const Name& name) {
    return all.simpleini->GetLongValue(name.section.c_str(), name.key.c_str());
  });
  job.add("inih", [](Documents& all, const Name& name) {
    return all.inih->GetInteger(name.section, name.key, 0);
  });
  job.add("iniparser", [](Documents& all, const Name& name) {
    return iniparser_getint(all.iniparser.get(), name.with_colon.c_str(), 0);
  });
  job.add("Boost",
          [](Documents& all, const Name& name) { return all.boost->get(name.with_dot, 0); });
}

void add_doubles(Getter job) {
  job.add("ours", [](Documents& all, const Name& name) {
    double value = 0;
    require(all.ours.getDouble(name.section, name.key, value, 0), "getDouble");
    return value;
  });
  job.add("floor", [](Documents& all, const Name& name) { return parse<double>(all.text(name)); });
  job.add("GLib", [](Documents& all, const Name& name) {
    return g_key_file_get_double(all.glib.get(), name.section.c_str(), name.key.c_str(), nullptr);
  });
  job.add("SimpleIni", [](Documents& all, const Name& name) {
    return all.simpleini->GetDoubleValue(name.section.c_str(), name.key.c_str());
  });
  job.add("inih", [](Documents& all, const Name& name) {
    return all.inih->GetReal(name.section, name.key, 0);
  });
  job.add("iniparser", [](Documents& all, const Name& name) {
    return iniparser_getdouble(all.iniparser.get(), name.with_colon.c_str(), 0);
  });
  job.add("Boost",
          [](Documents& all, const Name& name) { return all.boost->get(name.with_dot, 0.0); });
}

void add_booleans(Getter job) {
  job.add("ours", [](Documents& all, const Name& name) {
    bool value = false;
    require(all.ours.getBoolean(name.section, name.key, value, false), "getBoolean");
    return value;
  });
  job.add("floor", [](Documents& all, const Name& name) {
    return strcasecmp(all.text(name).c_str(), "true") == 0;
  });
  job.add("GLib", [](Documents& all, const Name& name) {
    return g_key_file_get_boolean(all.glib.get(), name.section.c_str(), name.key.c_str(),
                                  nullptr) != 0;
  });
  job.add("SimpleIni", [](Documents& all, const Name& name) {
    return all.simpleini->GetBoolValue(name.section.c_str(), name.key.c_str());
  });
  job.add("inih", [](Documents& all, const Name& name) {
    return all.inih->GetBoolean(name.section, name.key, false);
  });
  job.add("iniparser", [](Documents& all, const Name& name) {
    return iniparser_getboolean(all.iniparser.get(), name.with_colon.c_str(), 0) == 1;
  });
  job.add("Boost",
          [](Documents& all, const Name& name) { return all.boost->get(name.with_dot, false); });
}

enum class Pattern { ONE, SCATTERED };

// Every fourth key of a document has a value of the same type.
Names names_of_type(size_t type, size_t keys, Pattern pattern) {
  Names names;
  const auto append = [&](size_t n) {
    const std::string section = section_name(n);
    const std::string key = key_name(n);
    names.push_back({section, key, section + ":" + key, section + "." + key});
  };
  if (pattern == Pattern::ONE) {
    append(keys / 2 / 4 * 4 + type);
  } else {
    for (const size_t n : shuffled(keys / 4)) append(4 * n + type);
  }
  return names;
}

}  // namespace

void add_getters(Suite& suite, const std::string& directory) {
  struct Type {
    const char* getter;
    void (*add)(Getter);
  };
  constexpr std::array TYPES = {Type{"getString", add_strings}, Type{"getInteger", add_integers},
                                Type{"getDouble", add_doubles}, Type{"getBoolean", add_booleans}};
  struct Variant {
    const char* name;
    size_t keys;
    Pattern pattern;
  };
  constexpr std::array VARIANTS = {
      Variant{"one of 30 keys", 30, Pattern::ONE},
      Variant{"one of 30000 keys", 30'000, Pattern::ONE},
      Variant{"scattered over 30000 keys", 30'000, Pattern::SCATTERED}};
  suite.begin_group("Getters");
  std::map<size_t, std::shared_ptr<Documents>> documents;
  for (const Variant& variant : VARIANTS) {
    for (size_t type = 0; type < TYPES.size(); ++type) {
      if (!suite.begin_job(std::string(TYPES[type].getter) + ", " + variant.name)) continue;
      std::shared_ptr<Documents>& all = documents[variant.keys];
      if (all == nullptr) {
        const std::string path = directory + "/" + std::to_string(variant.keys) + " keys";
        put(path, ordered_document(variant.keys));
        all = std::make_shared<Documents>(path);
      }
      TYPES[type].add({suite, all, names_of_type(type, variant.keys, variant.pattern)});
    }
  }
}

}  // namespace vutil::bench
