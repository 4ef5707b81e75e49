#include <cmath>
#include <memory>
#include <stdexcept>
#include <thread>
#include <typeinfo>

#include "support.h"

namespace vutil {
namespace {

using Texts = std::vector<std::string>;

class KeyFiles : public InFolder {};

// The document of a file with `text`, or what is thrown, for which there must be a line.
std::string outcome(const std::string& text) {
  put("file", text);
  std::string result;
  const auto line = lines_of([&] {
    try {
      result = KeyFile("file", 0600).toString();
    } catch (const std::exception& error) {
      result = typeid(error) == typeid(std::logic_error) ? error.what() : "another exception";
    }
  });
  const std::string middle = ": ini parsing failed, ";
  const bool thrown = result.find(middle) != std::string::npos;
  EXPECT_EQ(line, thrown ? "<3>Failed to read keyfile at file: " + result + "\n" : "") << text;
  return thrown ? result.replace(result.find(middle), middle.size(), " ") : result;
}

TEST_F(KeyFiles, TextIsReadAndWrittenInOrder) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", ""},
      {" \n\t\n# only\n ; comments", ""},
      {"[b]\ny=2\nx=1\n[a]\n[B]", "[B]\n[a]\n[b]\nx=1\ny=2\n"},
      {"[a]\nk=1\n[b]\n[a]\nj=2\nk=3\n", "[a]\nj=2\nk=3\n[b]\n"},
      {"  [a] trailing words\r\n\tk = v \r\n", "[a]\nk=v\n"},
      {"[ a ]\n[a=b[c]]\n", "[ a ]\n[a=b[c]\n"},
      {"[a]\nk = a = b\n=v\nj=", "[a]\n=v\nj=\nk=a = b\n"},
      {"[a]\nk=v # note\nl=v ; note\nm=#\n#n=1\n", "[a]\nk=v\nl=v\nm=\n"},
      {"[a\\#1]\nk=v \\# not\\;e ; note\n\\;j=\\\\#\n", "[a\\#1]\n\\;j=\\\\#\nk=v \\# not\\;e\n"},
      {"[a]\nk=\\\\ \\n\nj=\\##cut\nl=\\#;cut\\#\n", "[a]\nj=\\#\nk=\\\\ \\n\nl=\\#\n"},
      {std::string("[a\0b]\n\0=\0\n", 10), std::string("[a\0b]\n\0=\0\n", 10)},
      {"[a]\n\xff=\n\x7f=\n", "[a]\n\x7f=\n\xff=\n"},
      {"[a]\n\n# note\n[b", "l.4 section not closed"},
      {"[a#]\n", "l.1 section not closed"},
      {"\r\n[]a]\n", "l.2 section is empty"},
      {"k=v\n[a]\n", "l.1 field has no section"},
      {"[a]\nk=v\n  more\n", "l.3 no '=' found"},
      {"[a]\n\\#k", "l.2 no '=' found"}};
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(outcome(text), expected);
    EXPECT_EQ(text_of("file"), text);
    EXPECT_TRUE(expected[0] == 'l' || outcome(expected) == expected) << expected;
  }
}

// Reads each text through `get`, and lists the values, or "-" for a failure with `reason`.
template <typename T>
std::string readings(bool (KeyFile::*get)(const std::string&, const std::string&, T&, T),
                     const std::string& reason, const Texts& texts) {
  KeyFile file("file", 0600);
  std::ostringstream list;
  for (const std::string& text : texts) {
    EXPECT_TRUE(file.setString("s", "k", text));
    T value = static_cast<T>(77);
    bool read = false;
    const auto line = lines_of([&] { read = (file.*get)("s", "k", value, T{}); });
    EXPECT_EQ(line, read ? "" : "<3>Failed to get s::k : " + reason + "\n") << text;
    EXPECT_TRUE(read || value == static_cast<T>(77));
    EXPECT_EQ(file.toString(), "[s]\nk=" + text + "\n");
    list << (read ? (std::ostringstream() << value).str() : "-") << " ";
  }
  return list.str();
}

TEST_F(KeyFiles, ValuesAreReadByTheRulesOfTheirType) {
  EXPECT_EQ(readings<int>(
                &KeyFile::getInteger, "field is not an int",
                {"42",         "-0",          "0123",       "0x1F",        "0X1f",
                 "0x-1f",      "0x7FFFFFFF",  "2147483647", "-2147483648", std::string("7\0x", 3),
                 "2147483648", "-2147483649", "0x80000000", "99999999999", "",
                 "-",          "+5",          " 42",        "42 ",         "42abc",
                 "1e3",        "4.0",         "0x",         "0xG"}),
            "42 0 123 31 31 -31 2147483647 2147483647 -2147483648 7 - - - - - - - - - - - - - - ");
  EXPECT_EQ(readings<double>(&KeyFile::getDouble, "stod",
                             {"3.5", " 2.5", "2.5 volts", "1e3", "0x1p3", "-Infinity", "nan", "-0",
                              "", "abc", "1e400", "1e-400"}),
            "3.5 2.5 2.5 1000 8 -inf nan -0 - - - - ");
  EXPECT_EQ(readings<bool>(&KeyFile::getBoolean, "field is not a bool",
                           {"true", "TRUE", "tRuE", "False", "", "yes", "1", "0", "on", " true",
                            "true ", "truer", "tru"}),
            "1 1 1 0 - - - - - - - - - ");
}

TEST_F(KeyFiles, ValuesAreStoredInTheTextFormOfTheirType) {
  KeyFile file("file", 0640);
  int key = 0;
  for (const double value :
       {0.1, 1e6, 123456.7, double{NAN}, -0.0, 3.14159265, 2.0, -HUGE_VAL, 1e-7}) {
    EXPECT_TRUE(file.setDouble("s", std::to_string(++key), value));
  }
  EXPECT_TRUE(file.setInteger("s", "i", -2147483647 - 1) && file.setBoolean("s", "b", false));
  EXPECT_TRUE(file.setString("s", "t", " # ; = [x] \\ "));
  const std::string text =
      "[s]\n1=0.1\n2=1e+06\n3=123457\n4=nan\n5=-0\n6=3.14159\n7=2\n8=-inf\n9=1e-07\n"
      "b=false\ni=-2147483648\nt= \\# \\; = [x] \\ \n";
  EXPECT_EQ(text_of("file"), text);
  struct stat status = {};
  ASSERT_EQ(stat("file", &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640u);
}

TEST_F(KeyFiles, ADefaultIsStoredOnceAndReadBack) {
  int saves = 0;
  KeyFile file("file", 0600, [&](std::string&, KeyFile::Operation) { ++saves; });
  int number = 0;
  EXPECT_TRUE(file.getInteger("net", "retries", number, 3) && number == 3);
  EXPECT_TRUE(file.getInteger("net", "retries", number, 5) && number == 3);
  EXPECT_EQ(saves, 1);
  EXPECT_TRUE(file.setInteger("net", "retries", 3));
  EXPECT_EQ(saves, 2);  // also when nothing changes
  double real = 0;
  EXPECT_TRUE(file.getDouble("net", "pi", real, 3.14159265) && real == 3.14159);
  bool flag = false;
  EXPECT_TRUE(file.getBoolean("a", "flag", flag, true) && flag);
  std::string text = "both the output and the default";
  EXPECT_TRUE(file.getString("net", "text", text, text));
  EXPECT_EQ(text_of("file"), "[a]\nflag=true\n[net]\npi=3.14159\nretries=3\ntext=" + text + "\n");
  EXPECT_EQ(lines_of([&] { EXPECT_FALSE(file.getDouble("net", "tiny", real, 1e-310)); }),
            "<3>Failed to get net::tiny : stod\n");
  EXPECT_EQ(saves, 6);
  EXPECT_EQ(real, 3.14159);
}

TEST_F(KeyFiles, TextThatTheFormatCannotCarryIsRefused) {
  put("file", "[a]\nk=v\n");
  KeyFile file("file", 0600);
  const std::vector<std::array<std::string, 4>> cases = {
      {"", "k", "v", "the section name is empty"},
      {"a]", "k", "v", "the section name holds ']' or a line feed"},
      {"a\n<2>forged", "k", "v", "the section name holds ']' or a line feed"},
      {"b", "k=", "v", "the key holds '=' or a line feed"},
      {"b", "k\n", "v", "the key holds '=' or a line feed"},
      {"b", "[k", "v", "the key begins with '['"},
      {"b", " k", "v", "the key begins or ends with white space"},
      {"b", "k\v", "v", "the key begins or ends with white space"},
      {"b", "k", "v\n", "the value holds a line feed"}};
  for (const auto& [section, key, text, reason] : cases) {
    std::string value = "as it was";
    bool stored = true;
    const auto lines = lines_of([&, &section = section, &key = key, &text = text] {
      stored = file.setString(section, key, text) || file.getString(section, key, value, text);
    });
    const auto line = "<3>Refused to store in 'file': " + reason + "\n";
    EXPECT_EQ(std::tuple(lines, stored, value), std::tuple(line + line, false, "as it was"));
    EXPECT_EQ(file.toString() + text_of("file"), "[a]\nk=v\n[a]\nk=v\n");
  }
  std::string value;
  EXPECT_TRUE(file.getString("a", "k", value, "unused\n") && value == "v");
  EXPECT_TRUE(file.setString("\t#[", std::string("\0;", 2), "\\"));
  EXPECT_EQ(KeyFile("file", 0600).toString(), file.toString());
}

TEST_F(KeyFiles, TheCallbackRewritesTheTextBothWays) {
  std::string seen;
  put("file", "<[a]\nk=1\n");
  KeyFile file("file", 0600, [&](std::string& text, KeyFile::Operation operation) {
    seen += std::to_string(static_cast<int>(operation)) + text + "|";
    text = operation == KeyFile::Operation::Read ? text.substr(1) : "<" + text;
  });
  file.write();
  EXPECT_EQ(seen, "0<[a]\nk=1\n|1[a]\nk=1\n|");
  EXPECT_EQ(file.toString(), "[a]\nk=1\n");
  EXPECT_EQ(text_of("file"), "<[a]\nk=1\n");
}

TEST_F(KeyFiles, WhatTheCallbackThrowsPreventsTheSaveOnly) {
  enum { NOTHING, ERROR, FOREIGN, REENTER } action = NOTHING;
  KeyFile* self = nullptr;
  KeyFile file("file", 0600, [&](std::string&, KeyFile::Operation) {
    if (action == ERROR) throw std::runtime_error("disk full");
    if (action == FOREIGN) throw 42;
    if (action == REENTER) self->setInteger("net", "port", 0);
  });
  self = &file;
  EXPECT_TRUE(file.setInteger("net", "port", 1));
  int port = 0;
  action = ERROR;
  const std::string longer(100, 'x');
  EXPECT_EQ(lines_of([&] {
              EXPECT_FALSE(file.setInteger("net", "port", 80));
              EXPECT_FALSE(file.setBoolean("net", "tls", true));
              EXPECT_FALSE(file.setDouble("net", "rate", 1e6));
              EXPECT_FALSE(file.setString("net", "name", longer));
              EXPECT_FALSE(file.getInteger("net", "new", port, 7));
            }),
            "<3>Failed to set net::port=80: disk full\n<3>Failed to set net::tls=1: disk full\n"
            "<3>Failed to set net::rate=1e+06: disk full\n<3>Failed to set net::name=" +
                longer + ": disk full\n<3>Failed to get net::new : disk full\n");
  EXPECT_EQ(port, 0);
  action = FOREIGN;
  EXPECT_EQ(lines_of([&] { EXPECT_THROW(file.setInteger("net", "port", 81), int); }), "");
  EXPECT_EQ(text_of("file"), "[net]\nport=1\n");
  action = REENTER;
  EXPECT_EQ(lines_of([&] { EXPECT_FALSE(file.setInteger("net", "port", 82)); }),
            "<3>Failed to set net::port=82: Resource deadlock avoided\n");
  action = NOTHING;
  EXPECT_TRUE(file.getInteger("net", "port", port, 0) && port == 82);
  file.write();
  EXPECT_EQ(text_of("file"), file.toString());
  put("file", "[a\n");
  EXPECT_EQ(lines_of([] { EXPECT_THROW(KeyFile("file", 0, [](auto&, auto) { throw 1; }), int); }),
            "");
}

TEST_F(KeyFiles, MovesHandOverTheDocumentAndLeaveASafeObject) {
  auto owned = std::make_shared<int>();
  KeyFile first("first", 0600, [owned](std::string&, KeyFile::Operation) {});
  KeyFile second("second", 0600);
  EXPECT_TRUE(first.setInteger("a", "k", 1));
  KeyFile& alias = first;
  first = std::move(alias);
  EXPECT_EQ(first.toString(), "[a]\nk=1\n");
  first = std::move(second);
  EXPECT_EQ(owned.use_count(), 1);
  EXPECT_TRUE(first.setInteger("b", "k", 3));
  EXPECT_EQ(text_of("second"), "[b]\nk=3\n");
  std::string text = "as it was";
  const auto lines = lines_of([&] {    // NOLINT(bugprone-use-after-move): it must be safe
    EXPECT_EQ(second.toString(), "");  // NOLINT(clang-analyzer-cplusplus.Move)
    second.write();
    EXPECT_FALSE(second.getString("a", "k", text, "") || second.setBoolean("a", "k", true));
  });
  EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 4);
  EXPECT_EQ(lines.find("<2>src/keyfile.cpp:"), 0u);
  EXPECT_EQ(text, "as it was");
  second = KeyFile(std::move(first));
  EXPECT_EQ(second.toString(), "[b]\nk=3\n");
}

TEST_F(KeyFiles, ThreadsTakeTurnsOnOneObject) {
  int inside = 0;  // not atomic: the thread sanitizer sees callbacks that overlap
  KeyFile file("shared", 0600, [&](std::string&, KeyFile::Operation) {
    EXPECT_EQ(++inside, 1);
    --inside;
  });
  std::array<std::thread, 4> threads;
  for (size_t id = 0; id < threads.size(); ++id) {
    threads[id] = std::thread([&file, own = std::to_string(id)] {
      std::tuple<int, double, bool, std::string> read;
      auto& [number, real, flag, text] = read;
      KeyFile apart("apart" + own, 0600);
      for (int i = 0; i < 10; ++i) {
        EXPECT_TRUE(file.setInteger(own, "i", i) && file.getInteger(own, "i", number, -1));
        EXPECT_TRUE(file.setDouble(own, "d", 0.5) && file.getDouble(own, "d", real, 0));
        EXPECT_TRUE(file.setBoolean(own, "b", true) && file.getBoolean(own, "b", flag, false));
        EXPECT_TRUE(file.setString(own, "t", own) && file.getString(own, "t", text, ""));
        EXPECT_EQ(read, std::tuple(i, 0.5, true, own));
        EXPECT_TRUE(apart.setInteger("s", "i", i));
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(text_of("shared"), file.toString());
}

}  // namespace
}  // namespace vutil
