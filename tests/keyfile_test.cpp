#include <cmath>
#include <locale>
#include <map>
#include <memory>
#include <stdexcept>
#include <thread>
#include <typeinfo>

#include "support.h"

namespace vutil {
namespace {

// Long enough to be allocated.
const std::string NAME(30, 'n'), VALUE(30, 'v'), OLD = "[b]\nold=" + VALUE + "\n";

class KeyFiles : public InDirectory {
 protected:
  struct Accessor {
    std::string failure;                     // its message, up to the reason
    std::function<bool(KeyFile&)> succeeds;  // gives or stores the right value
    bool may_throw = false;                  // instead, without memory: it copies a string first
  };
  const std::string get_ = "<3>Failed to get a::" + NAME + " : ";
  const std::string set_ = "<3>Failed to set a::" + NAME;
  int number_ = 0;
  double real_ = 0;
  bool flag_ = false;
  std::string text_;
  const std::vector<Accessor> accessors_ = {
      {get_, [&](auto& file) { return file.getInteger("a", NAME, number_, 7) && number_ == 7; }},
      {get_, [&](auto& file) { return file.getDouble("a", NAME, real_, 0.5) && real_ == 0.5; }},
      {get_, [&](auto& file) { return file.getBoolean("a", NAME, flag_, true) && flag_; }},
      {get_, [&](auto& file) { return file.getString("a", NAME, text_, VALUE) && text_ == VALUE; },
       true},
      {set_ + "=-123456789: ", [](auto& file) { return file.setInteger("a", NAME, -123456789); }},
      {set_ + "=1e+06: ", [](auto& file) { return file.setDouble("a", NAME, 1e6); }},
      {set_ + "=1: ", [](auto& file) { return file.setBoolean("a", NAME, true); }},
      {set_ + "=" + VALUE + ": ", [](auto& file) { return file.setString("a", NAME, VALUE); },
       true}};
};

// The messages of reading a file with `text`, then its document or what is thrown.
std::string document_of(const std::string& text) {
  put("file", text);
  std::string result;
  return messages_of([&] {
           try {
             result = KeyFile("file", 0600).toString();
           } catch (const std::exception& error) {
             result = error.what();
             EXPECT_TRUE(typeid(error) == typeid(std::logic_error));
           }
         }) +
         result;
}

std::string error(const std::string& line, const std::string& reason) {
  const std::string what = "l." + line + ": ini parsing failed, " + reason;
  return "<3>Failed to read keyfile at file: " + what + "\n" + what;
}

TEST_F(KeyFiles, TextIsReadAndWrittenInOrderOrReportedWithItsLine) {
  const std::pair<std::string, std::string> rows[] = {
      {"", ""},
      {" \n\t\n# only\n ; comments", ""},
      {"[b]\ny=2\nx=1\n[a]\n[B]", "[B]\n[a]\n[b]\nx=1\ny=2\n"},
      {"[a]\nc=1\n[b]\n[a]\nb =2\nc=3\na= 4\n", "[a]\na=4\nb=2\nc=3\n[b]\n"},
      {"[a]\nk=1\nk=2\nj=1\nk=3\nj=2\n", "[a]\nj=2\nk=3\n"},
      {"  [a] trailing words\r\n\tk =\f v\v \r\n", "[a]\nk=v\n"},
      {"[ ]\n[ a ]\n[a=b[c]]\n", "[ ]\n[ a ]\n[a=b[c]\n"},
      {"[a]\nk = a = b\n=v\nj=\nkk=\x0e\x08", "[a]\n=v\nj=\nk=a = b\nkk=\x0e\x08\n"},
      {"[a]\nk=u\nk=v # note\nl=v ; note\nm=#\n#n=1\n", "[a]\nk=v\nl=v\nm=\n"},
      {"[a\\#1]\nk=v \\# \\#n\\;e ; note\n\\;j=\\\\#\n", "[a\\#1]\n\\;j=\\\\#\nk=v \\# \\#n\\;e\n"},
      {"[a]\nk=\\\\ \\n\nj=\\##cut\nl=\\#;cut\\#\n", "[a]\nj=\\#\nk=\\\\ \\n\nl=\\#\n"},
      {std::string("[a\0b]\n\0=\0\n", 10), std::string("[a\0b]\n\0=\0\n", 10)},
      {"[a]\n\xff=\n\x7f=\n", "[a]\n\x7f=\n\xff=\n"},
      {"[a]\n\n# note\n[b", error("4", "section not closed")},
      {"[a#]\n", error("1", "section not closed")},
      {"\r\n[]a]\n", error("2", "section is empty")},
      {"k=v\n[a]\n", error("1", "field has no section")},
      {"[a]\nk=v\n  more\n", error("3", "no '=' found")},
      {"[a]\n\\#k", error("2", "no '=' found")}};
  for (const auto& [text, expected] : rows) {
    const std::string document = document_of(text);
    EXPECT_EQ(document, expected);
    EXPECT_EQ(text_of("file"), text);
    EXPECT_TRUE(document[0] == '<' || document_of(document) == document) << document;
  }
}

TEST_F(KeyFiles, RepeatedKeysGoWhileTheFileIsRead) {
  std::map<std::string, std::map<std::string, std::string>> sections;
  std::string text, name, expected;
  for (int i = 0; i < 9'999; ++i) {
    if (i % 700 == 0) text += "[" + (name = std::to_string(i % 3)) + "]\n";
    const std::string key = std::to_string(i * i % 97);
    text += key + "=" + (sections[name][key] = std::to_string(i)) + "\n";
  }
  for (const auto& [section, keys] : sections) {
    expected += "[" + section + "]\n";
    for (const auto& [key, value] : keys) expected += key + "=" + value + "\n";
  }
  state.largest = 0;
  EXPECT_EQ(document_of(text), expected);
  EXPECT_LE(state.largest, 2 * text.size());
}

// Reads texts through `get`: those that give a value, and those that it refuses for a reason.
template <typename T>
void expect_readings(bool (KeyFile::*get)(const std::string&, const std::string&, T&, T),
                     const std::vector<std::pair<T, Texts>>& readings, const std::string& reason,
                     const Texts& refused) {
  const auto expect_reading = [&](const std::string& text, T before, T after, bool done) {
    SCOPED_TRACE(text);
    put("file", "[a]\nk=" + text + "\n");
    KeyFile file("file", 0600);
    const auto messages = messages_of([&] {
      EXPECT_EQ(calls_of([&] { EXPECT_EQ((file.*get)("a", "k", before, T()), done); }), Texts());
    });
    EXPECT_EQ(messages, done ? "" : "<3>Failed to get a::k : " + reason + "\n");
    EXPECT_EQ(memcmp(&before, &after, sizeof(T)), 0) << before;
  };
  for (const auto& [value, texts] : readings)
    for (const std::string& text : texts) expect_reading(text, T(value == 0), value, true);
  for (const std::string& text : refused)
    for (const T value : {T(0), T(1)}) expect_reading(text, value, value, false);
}

TEST_F(KeyFiles, ValuesAreReadByTheRulesOfTheirType) {
  expect_readings<int>(&KeyFile::getInteger,
                       {{42, {"42", "0042"}},
                        {0, {"0", "-0"}},
                        {31, {"0x1F", "0X1f"}},
                        {-31, {"0x-1f"}},
                        {2147483647, {"2147483647", "0x7fffffff"}},
                        {-2147483647 - 1, {"-2147483648"}},
                        {7, {std::string("7\0x", 3)}}},
                       "field is not an int",
                       {"2147483648", "-2147483649", "0x80000000", "", "-", "+5", "42-", "1x3",
                        "4.0", "0x", "0xG", "x1"});
  expect_readings<double>(&KeyFile::getDouble,
                          {{2.5, {" 2.5 volts", "+2.5"}},
                           {8, {"0x1p3", "8e0"}},
                           {-HUGE_VAL, {"-Infinity"}},
                           {NAN, {"nan"}},
                           {-0.0, {"-0"}}},
                          "stod", {"", "abc", "1e400", "1e-400"});
  expect_readings<bool>(&KeyFile::getBoolean, {{true, {"true", "tRuE"}}, {false, {"FALSE"}}},
                        "field is not a bool", {"", "1", "yes", "true-", "tru", "falser"});
}

TEST_F(KeyFiles, ValuesAreStoredAsTextAndSavedLaterIfASaveFails) {
  KeyFile file("file", 0640);
  EXPECT_TRUE(file.setDouble("s", "d1", 123456.7) && file.setDouble("s", "d2", NAN));
  EXPECT_TRUE(file.setDouble("s", "d3", -0.0) && file.setDouble("s", "d4", 1e6));
  EXPECT_TRUE(file.setInteger("s", "i", -2147483647 - 1) && file.setBoolean("s", "b", false));
  EXPECT_TRUE(file.setString("s", "t", " # ; = [x] \\ "));
  struct Grouped : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
  };
  const std::locale before = std::locale::global(std::locale(std::locale(), new Grouped));
  EXPECT_TRUE(file.setInteger("u", "i", 12345) && file.setDouble("u", "x", 0.5));
  std::locale::global(before);
  EXPECT_EQ(text_of("file"),
            "[s]\nb=false\nd1=123457\nd2=nan\nd3=-0\nd4=1e+06\ni=-2147483648\nt= \\# \\; = [x] \\ "
            "\n[u]\ni=12.345\nx=0,5\n");
  const auto save = [&] { EXPECT_TRUE(file.setInteger("s", "i", 80)); };
  EXPECT_EQ(messages_of([&] { calls_of(save, {.nth = 1, .error = EIO}); }),
            "<3>Failed to unlink 'file.tmp': Input/output error\n"
            "<3>Failed to save key file to 'file': Input/output error\n");
  EXPECT_EQ(calls_of([&] { file.write(); }).at(4), "chmod file.tmp 0640");
  EXPECT_EQ(text_of("file"), file.toString());
}

TEST_F(KeyFiles, ChangesAreSavedAndReadThroughTheCallback) {
  std::string seen;
  const auto callback = [&](std::string& text, KeyFile::Operation operation) {
    seen += std::to_string(static_cast<int>(operation));
    text = operation == KeyFile::Operation::Write ? text + "<" : text.substr(0, text.find('<'));
  };
  KeyFile file("file", 0600, callback);
  EXPECT_EQ(seen, "");  // there is no file
  text_ = "both the output and the default";
  EXPECT_TRUE(file.getInteger("n", "i", number_, 3) && number_ == 3);
  EXPECT_TRUE(file.getInteger("n", "i", number_, 5) && number_ == 3);
  EXPECT_TRUE(file.getDouble("n", "x2", real_, 3.14159265) && real_ == 3.14159);
  EXPECT_TRUE(file.getString("n", "t", text_, text_) && file.setInteger("n", "i", 4));
  EXPECT_EQ(messages_of([&] { EXPECT_FALSE(file.getDouble("n", "x", real_, 1e-310)); }),
            "<3>Failed to get n::x : stod\n");
  EXPECT_TRUE(real_ == 3.14159 && file.setInteger("n", "i", 4));  // the same again
  EXPECT_EQ(seen, "111111");
  EXPECT_EQ(file.toString(), "[n]\ni=4\nt=" + text_ + "\nx=1e-310\nx2=3.14159\n");
  EXPECT_EQ(text_of("file"), file.toString() + "<");
  EXPECT_EQ(KeyFile("file", 0600, callback).toString(), file.toString());
  put("file", seen = "");
  EXPECT_EQ(KeyFile("file", 0600, callback).toString() + seen, "0");
}

TEST_F(KeyFiles, TextThatTheFormatCannotCarryIsRefused) {
  const std::array<std::string, 4> rows[] = {
      {"", "k", "v", "the section name is empty"},
      {"a]", "k", "v", "the section name holds ']' or a line feed"},
      {"a\n<2>forged", "k", "v", "the section name holds ']' or a line feed"},
      {"b", "k=", "v", "the key holds '=' or a line feed"},
      {"b", "k\n", "v", "the key holds '=' or a line feed"},
      {"b", "[k", "v", "the key begins with '['"},
      {"b", " k", "v", "the key begins or ends with white space"},
      {"b", "k\v", "v", "the key begins or ends with white space"},
      {"b", "k", "v\n", "the value holds a line feed"}};
  put("file", "[a]\nk=v\n");
  KeyFile file("file", 0600);
  text_ = "as it was";
  for (const auto& row : rows) {
    const auto messages = messages_of([&] {
      EXPECT_FALSE(file.setString(row[0], row[1], row[2]));
      EXPECT_FALSE(file.getString(row[0], row[1], text_, row[2]));
    });
    const std::string message = "<3>Refused to store in 'file': " + row[3] + "\n";
    EXPECT_EQ(messages, message + message);
    EXPECT_EQ(text_ + file.toString() + text_of("file"), "as it was[a]\nk=v\n[a]\nk=v\n");
  }
  EXPECT_EQ(messages_of([&] { EXPECT_FALSE(file.setString("a", "k", "new\n")); }),
            "<3>Refused to store in 'file': the value holds a line feed\n");
  EXPECT_TRUE(file.getString("a", "k", text_, "unused\n") && text_ == "v");
  EXPECT_TRUE(file.setString("\t#[", "", std::string("\0;", 2)));
  EXPECT_EQ(KeyFile("file", 0600).toString(), file.toString());
}

TEST_F(KeyFiles, WhatTheCallbackThrowsPreventsTheSaveAndFreesTheLock) {
  std::function<void()> act;
  std::optional<KeyFile> file;
  for (const auto& [failure, succeeds, may_throw] : accessors_) {
    SCOPED_TRACE(failure);
    const auto prepare = [&](const std::function<void()>& action) {
      act = [] {};
      put("file", OLD);
      file.emplace("file", 0600u, [&](std::string&, KeyFile::Operation) { act(); });
      act = action;
    };
    const auto fails = [&, &succeeds = succeeds] { EXPECT_FALSE(succeeds(*file)); };
    prepare([] { throw std::runtime_error("disk full"); });
    EXPECT_EQ(messages_of(fails), failure + "disk full\n");
    EXPECT_EQ(text_of("file"), OLD);
    prepare([] { throw 42; });
    EXPECT_EQ(messages_of([&] { EXPECT_THROW(fails(), int); }), "");
    prepare(fails);  // while it holds the lock
    EXPECT_EQ(messages_of(fails), failure + "Resource deadlock avoided\n");
    act = [] {};
    EXPECT_TRUE(succeeds(*file));
    act = fails;  // now of a key that is there
    EXPECT_EQ(messages_of([&] { EXPECT_FALSE(file->setInteger("a", "b", 1)); }),
              "<3>Failed to set a::b=1: Resource deadlock avoided\n");
  }
  EXPECT_THROW(KeyFile("file", 0600, [](auto&, auto) { throw 42; }), int);
}

TEST_F(KeyFiles, MovesHandOverTheDocumentAndLeaveASafeObject) {
  auto owned = std::make_shared<int>();
  KeyFile first("first", 0600, [owned](std::string&, KeyFile::Operation) {});
  KeyFile second("second", 0600);
  first = std::move(std::ref(first).get());
  EXPECT_TRUE(first.setInteger("a", "k", 1));
  first = std::move(second);
  EXPECT_TRUE(first.setInteger("b", "k", 3));
  EXPECT_EQ(std::tuple(owned.use_count(), text_of("second")), std::tuple(1, "[b]\nk=3\n"));
  const std::string messages = messages_of([&] {  // NOLINT(bugprone-use-after-move): it is safe
    EXPECT_EQ(second.toString(), "");             // NOLINT(clang-analyzer-cplusplus.Move)
    second.write();
    EXPECT_FALSE(second.getString("a", "k", text_, "v") || second.setBoolean("a", "k", true));
  });
  EXPECT_EQ(std::count(messages.begin(), messages.end(), '\n'), 4);
  EXPECT_EQ(messages.substr(0, 19) + text_, "<2>src/keyfile.cpp:");
  second = KeyFile(std::move(first));
  EXPECT_EQ(second.toString(), "[b]\nk=3\n");
}

TEST_F(KeyFiles, EveryAllocationMayFail) {
  std::vector<Accessor> rows = accessors_;
  rows.push_back({"", [](KeyFile& file) { return file.toString() == OLD; }, true});
  rows.push_back({"", [](KeyFile& file) { return file.write(), true; }, true});
  rows.push_back({"<3>Failed to read keyfile at file: ",
                  [](KeyFile&) { return KeyFile("file", 0600).toString() == OLD; }, true});
  for (const auto& [failure, succeeds, may_throw] : rows) {
    for (int nth = 1, failures = 2; failures > 0; ++nth) {
      failures = 0;
      for (const bool all : {false, true}) {
        SCOPED_TRACE(testing::Message() << failure << nth << (all ? " and all later" : ""));
        put("file", OLD);
        KeyFile file("file", 0600);
        bool done = false, thrown = true;
        const auto messages = messages_of([&, &succeeds = succeeds] {
          failures += fails_allocation(nth, all, [&] {
            try {
              done = succeeds(file);
              thrown = false;
            } catch (const std::bad_alloc&) {
            }
          });
        });
        const std::string message = failure.empty() ? "" : failure + "std::bad_alloc\n";
        EXPECT_TRUE(messages == (done ? "" : message) || (thrown && messages.empty())) << messages;
        EXPECT_TRUE(!thrown || may_throw);
        EXPECT_TRUE(text_of("file") == OLD || text_of("file") == file.toString());
        // A key appears with its section and its text or not at all: it then gives the default.
        EXPECT_FALSE(file.toString().starts_with("[a]\n[")) << "a section without its key";
        EXPECT_TRUE(succeeds(file));
        file.write();
        EXPECT_EQ(KeyFile("file", 0600).toString(), file.toString());
      }
      EXPECT_TRUE(nth > 1 || failures == 2) << "nothing failed";
    }
  }
}

TEST_F(KeyFiles, ThreadsTakeTurnsOnOneObject) {  // as the thread sanitizer sees
  KeyFile file("file", 0600, [saves = 0](std::string&, KeyFile::Operation) mutable { ++saves; });
  const auto use = [&] {
    for (int i = 0, number = 0; i < 10; ++i)
      EXPECT_TRUE(file.setInteger("s", "k", i) && file.getInteger("s", "k", number, 0));
  };
  std::thread other(use);
  use();
  other.join();
}

}  // namespace
}  // namespace vutil
