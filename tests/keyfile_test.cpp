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
  const std::string get_ = "<3>Failed to get a::" + NAME + " : ";
  const std::string set_ = "<3>Failed to set a::" + NAME;
  int int_ = 0;
  double real_ = 0;
  bool bool_ = false;
  std::string text_;
  // The message of a failed call, up to the reason; a call that gives or stores the right value;
  // whether this may throw instead, without memory, as it copies a string first.
  const std::vector<std::tuple<std::string, std::function<bool(KeyFile&)>, bool>> accessors_ = {
      {get_, [&](auto& f) { return f.getInteger("a", NAME, int_, 7) && int_ == 7; }, false},
      {get_, [&](auto& f) { return f.getDouble("a", NAME, real_, 0.5) && real_ == 0.5; }, false},
      {get_, [&](auto& f) { return f.getBoolean("a", NAME, bool_, true) && bool_; }, false},
      {get_, [&](auto& f) { return f.getString("a", NAME, text_, VALUE) && text_ == VALUE; }, true},
      {set_ + "=-123456789: ", [](auto& f) { return f.setInteger("a", NAME, -123456789); }, false},
      {set_ + "=1e+06: ", [](auto& f) { return f.setDouble("a", NAME, 1e6); }, false},
      {set_ + "=1: ", [](auto& f) { return f.setBoolean("a", NAME, true); }, false},
      {set_ + "=" + VALUE + ": ", [](auto& f) { return f.setString("a", NAME, VALUE); }, true}};
};

// The messages of reading a file with `text`, then its document or what is thrown.
std::string document_of(const std::string& text) {
  put("file", text);
  std::string result;
  const auto messages = messages_of([&] {
    try {
      result = KeyFile("file", 0600).toString();
    } catch (const std::exception& error) {
      result = error.what();
      EXPECT_EQ(typeid(error), typeid(std::logic_error));
    }
  });
  return messages + result;
}

TEST_F(KeyFiles, KeyFile_ToString_ReadTextInOrderOrReportItsLine) {
  const std::pair<std::string, std::string> rows[] = {
      {" \n\t\n# only\n ; comments", ""},
      {"[b]\nm=1\nzz=\nnzzZ=2\n[a]\n[B]", "[B]\n[a]\n[b]\nm=1\nnzzZ=2\nzz=\n"},
      {"[a]\nc=1\nx=\n[b]\nk=\n[a]\nb =2\nc= 3\n[b]\nj=", "[a]\nb=2\nc=3\nx=\n[b]\nj=\nk=\n"},
      {"[a]\nk=1\nk=2\nj=1\nk=3\nj=2\n", "[a]\nj=2\nk=3\n"},
      {"  [a] trailing words\r\n\tk =\f v\v \r\n", "[a]\nk=v\n"},
      {"[ ]\n[ a ]\n[a=b[c]]\n", "[ ]\n[ a ]\n[a=b[c]\n"},
      {"[a]\nk = a = b\n=v\nj=\nkk=\x0e\x08", "[a]\n=v\nj=\nk=a = b\nkk=\x0e\x08\n"},
      {"[a]\nk=u\nk=v # note\nl=v ; note\nm=#\n#n=1\n", "[a]\nk=v\nl=v\nm=\n"},
      {"[a\\#1]\nk=v \\# \\#n\\;e ; note\n\\;j=\\\\#\n", "[a\\#1]\n\\;j=\\\\#\nk=v \\# \\#n\\;e\n"},
      {"[a]\nk=\\\\ \\n\nj=\\##cut\nl=\\#;cut\\#\n", "[a]\nj=\\#\nk=\\\\ \\n\nl=\\#\n"},
      {"[a\0b]\n\0=\0\n"s, "[a\0b]\n\0=\0\n"s},
      {"[a]\n\xff=\n\x7f=\n", "[a]\n\x7f=\n\xff=\n"},
      {"[a]\n\n# note\n[b", "l.4: ini parsing failed, section not closed"},
      {"[a#]\n", "l.1: ini parsing failed, section not closed"},
      {"\r\n[]a]\n", "l.2: ini parsing failed, section is empty"},
      {"k=v\n[a]\n", "l.1: ini parsing failed, field has no section"},
      {"[a]\nk=v\n  more\n", "l.3: ini parsing failed, no '=' found"},
      {"[a]\n\\#k", "l.2: ini parsing failed, no '=' found"}};
  for (const auto& [text, expected] : rows) {
    SCOPED_TRACE("Text: " + testing::PrintToString(text));
    const std::string message = "<3>Failed to read keyfile at file: " + expected + "\n";
    ASSERT_EQ(document_of(text), (expected[0] == 'l' ? message : "") + expected);
    ASSERT_EQ(text_of("file"), text);
    ASSERT_EQ(expected[0] == 'l' ? expected : document_of(expected), expected);
  }
  const auto load = [] { EXPECT_EQ(KeyFile("file", 0600).toString(), ""); };
  EXPECT_EQ(messages_of([&] { calls_of(load, {.nth = 4, .error = EIO}); }),
            "<3>Failed to read contents from 'file': Input/output error\n");
}

TEST_F(KeyFiles, KeyFile_DropsRepeatedKeysWhileItReads) {
  std::map<std::string, std::string> values;
  std::string text = "[a]\n", expected = text;
  for (int i = 0; i < 9'999; ++i) {
    const std::string key = std::to_string(i * i % 97);
    text += key + "=" + (values[key] = std::to_string(i)) + "\n";
  }
  for (const auto& [key, value] : values) expected += key + "=" + value + "\n";
  interposer.largest = 0;
  expect_lines(document_of(text), expected);
  EXPECT_LE(interposer.largest, 2 * text.size()) << "bytes at once: repeated keys are kept";
}

// Reads texts through `get`: each gives what follows its arrow, or is refused. Nothing changes.
template <typename T>
void expect_readings(bool (KeyFile::*get)(const std::string&, const std::string&, T&, T),
                     const std::string& reason, const Texts& rows) {
  for (const std::string& row : rows) {
    const size_t arrow = row.find(" -> ");
    for (T value : {T(0), T(1)}) {
      const std::string document = document_of("[a]\nk=" + row.substr(0, arrow) + "\n");
      const auto refused = "<3>Failed to get a::k : " + reason + "\n0 -> " + std::to_string(value);
      KeyFile file("file", 0600);
      const auto call = [&] { return (file.*get)("a", "k", value, T()); };
      std::string outcome;
      ASSERT_EQ(calls_of([&] { outcome = outcome_of(call); }), Texts()) << row;
      ASSERT_EQ(file.toString() + outcome + " -> " + std::to_string(value),
                document + (arrow == std::string::npos ? refused : "1" + row.substr(arrow)))
          << row;
    }
  }
}

TEST_F(KeyFiles, GetInteger_ReadsDecimalAndHexadecimal) {
  expect_readings<int>(&KeyFile::getInteger, "field is not an int",
                       {"42 -> 42", "0042 -> 42", "0 -> 0", "-0 -> 0", "0x1F -> 31", "0X1f -> 31",
                        "0x-1f -> -31", "2147483647 -> 2147483647", "0x7fffffff -> 2147483647",
                        "-2147483648 -> -2147483648", "7\0x -> 7"s});
  expect_readings<int>(&KeyFile::getInteger, "field is not an int",
                       {"2147483648", "-2147483649", "0x80000000", "", "-", "+5", "42-", "1x3",
                        "4.0", "0x", "0xG", "x1"});
}

TEST_F(KeyFiles, GetDouble_ReadsANumberAndWhatFollows) {
  expect_readings<double>(
      &KeyFile::getDouble, "stod",
      {"2.5 volts -> 2.500000", "+2.5 -> 2.500000", "0x1p3 -> 8.000000", "8e0 -> 8.000000",
       "-Infinity -> -inf", "nan -> nan", "-0 -> -0.000000", "", "abc", "1e400", "1e-400"});
}

TEST_F(KeyFiles, GetBoolean_ReadsTwoWordsInAnyCase) {
  expect_readings<bool>(
      &KeyFile::getBoolean, "field is not a bool",
      {"true -> 1", "tRuE -> 1", "FALSE -> 0", "", "0", "1", "yes", "true-", "tru", "falser"});
}

TEST_F(KeyFiles, SetInteger_SetDouble_SetBoolean_SetString_Write_SaveText) {
  KeyFile file("file", 04640);
  EXPECT_EQ(calls_of([&] { file.write(); }).at(3), "chmod file.tmp 04640");
  EXPECT_TRUE(file.setDouble("s", "d1", 123456.7) && file.setDouble("s", "d2", NAN));
  EXPECT_TRUE(file.setDouble("s", "d3", 1e6) && file.setInteger("s", "i", -2147483647 - 1));
  EXPECT_TRUE(file.setBoolean("s", "b", false) && file.setString("s", "t", " # ; = [x] \\ "));
  struct Grouped : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    std::string do_grouping() const override { return "\3"; }
  };
  const std::locale before = std::locale::global(std::locale(std::locale(), new Grouped));
  EXPECT_TRUE(file.setInteger("u", "i", 12345) && file.setDouble("u", "x", 0.5));
  std::locale::global(before);
  const auto set = [&] { EXPECT_TRUE(file.setDouble("s", "d4", -0.0)); };
  expect_lines(messages_of([&] { calls_of(set, {.nth = 1, .error = EIO}); }),
               "<3>Failed to unlink 'file.tmp': Input/output error\n"
               "<3>Failed to save key file to 'file': Input/output error\n");
  file.write();
  EXPECT_EQ(text_of("file"),
            "[s]\nb=false\nd1=123457\nd2=nan\nd3=1e+06\nd4=-0\ni=-2147483648\n"
            "t= \\# \\; = [x] \\ \n[u]\ni=12,345\nx=0,5\n");
}

TEST_F(KeyFiles, GetInteger_GetDouble_GetString_StoreDefaultsThroughTheCallback) {
  std::string seen;
  const auto callback = [&](std::string& text, KeyFile::Operation operation) {
    seen += std::to_string(static_cast<int>(operation));
    text = operation == KeyFile::Operation::Write ? text + "<" : text.substr(0, text.find('<'));
  };
  KeyFile file("file", 0600, callback);
  text_ = std::string(300, 'x');  // both the output and the default
  EXPECT_TRUE(file.getInteger("n", "i", int_, 3) && int_ == 3);
  EXPECT_TRUE(file.getInteger("n", "i", int_, 5) && int_ == 3);
  EXPECT_TRUE(file.getDouble("n", "x2", real_, 3.14159265) && real_ == 3.14159);
  EXPECT_TRUE(file.getString("n", "t", text_, text_) && file.setInteger("n", "i", 4));
  EXPECT_EQ(outcome_of([&] { return file.getDouble("n", "x", real_, 1e-310); }),
            "<3>Failed to get n::x : stod\n0");
  EXPECT_TRUE(real_ == 3.14159 && !remove("file") && file.setInteger("n", "i", 4));  // again
  ASSERT_EQ(seen, "111111") << "1 for each save, 0 for each file that is read";
  EXPECT_EQ(file.toString(), "[n]\ni=4\nt=" + text_ + "\nx=1e-310\nx2=3.14159\n");
  EXPECT_EQ(text_of("file"), file.toString() + "<");
  EXPECT_EQ(KeyFile("file", 0600, callback).toString(), file.toString());
  put("file", seen = "");
  EXPECT_EQ(KeyFile("file", 0600, callback).toString() + seen, "0");
}

TEST_F(KeyFiles, SetString_GetString_RefuseTextThatTheFormatCannotCarry) {
  const std::array<std::string, 4> rows[] = {
      {"", "k", "v", "the section name is empty"},
      {"a]", "k", "v", "the section name holds ']' or a line feed"},
      {"a\n<2>forged", "k", "v", "the section name holds ']' or a line feed"},
      {"b", "k=", "v", "the key holds '=' or a line feed"},
      {"b", "k\n", "v", "the key holds '=' or a line feed"},
      {"b", "[k", "v", "the key begins with '['"},
      {"b", " k", "v", "the key begins or ends with white space"},
      {"b", "k\v", "v", "the key begins or ends with white space"},
      {"b", "k", "v\n", "the value holds a line feed"},
      {"a", "k", "new\n", "the value holds a line feed"}};
  put("file", "[a]\nk=\n");
  KeyFile file("file", 0600);
  for (const auto& [section, key, value, reason] : rows) {
    text_ = "as it was";
    const auto messages = messages_of([&, &section = section, &key = key, &value = value] {
      EXPECT_FALSE(file.setString(section, key, value));
      EXPECT_EQ(file.getString(section, key, text_, value), section == "a");
    });
    const std::string message = "<3>Refused to store in 'file': " + reason + "\n";
    ASSERT_EQ(messages, section == "a" ? message : message + message);
    ASSERT_EQ(text_, section == "a" ? "" : "as it was");
    ASSERT_EQ(file.toString() + text_of("file"), "[a]\nk=\n[a]\nk=\n");
  }
  EXPECT_TRUE(file.setString("\t#[", "", "\0;"s) && file.setString("a", "#;", ""));
  EXPECT_EQ(KeyFile("file", 0600).toString(), file.toString());
}

TEST_F(KeyFiles, Accessors_ReportWhatTheCallbackThrowsAndFreeTheLock) {
  std::function<void()> act;
  std::optional<KeyFile> file;
  for (int row = 0; const auto& [failure, succeeds, may_throw] : accessors_) {
    SCOPED_TRACE(testing::Message() << "row " << ++row << " of accessors_: " << failure);
    const auto prepare = [&](const std::function<void()>& action) {
      act = [] {};
      put("file", OLD);
      file.emplace("file", 0600u, [&](std::string&, KeyFile::Operation) { act(); });
      act = action;
    };
    const auto call = [&, &succeeds = succeeds] { return succeeds(*file); };
    prepare([] { throw std::runtime_error("disk full"); });
    ASSERT_EQ(outcome_of(call), failure + "disk full\n0");
    ASSERT_EQ(text_of("file"), OLD);
    prepare([] { throw 42; });
    ASSERT_EQ(messages_of([&] { EXPECT_THROW(call(), int); }), "");
    prepare(call);  // while it holds the lock
    ASSERT_EQ(outcome_of(call), failure + "Resource deadlock avoided\n0");
    act = [] {};
    ASSERT_TRUE(call());
    act = call;  // now of a key that is there
    ASSERT_EQ(outcome_of([&] { return file->setInteger("a", "b", 1); }),
              "<3>Failed to set a::b=1: Resource deadlock avoided\n0");
  }
  const auto read = [](auto thrown) { KeyFile("file", 0600, [&](auto&, auto) { throw thrown; }); };
  EXPECT_EQ(messages_of([&] { EXPECT_THROW(read(42), int); }), "");
  EXPECT_EQ(messages_of([&] { EXPECT_THROW(read(std::exception()), std::exception); }), "");
}

TEST_F(KeyFiles, KeyFile_MovesItsDocumentAndLeavesASafeObject) {
  const auto owned = std::make_shared<int>();
  KeyFile first("first", 0600, [owned](auto&, auto) {}), second("second", 0600);
  first = std::move(std::ref(first).get());
  EXPECT_TRUE(first.setInteger("a", "k", 1));
  first = std::move(second);
  EXPECT_TRUE(first.setInteger("b", "k", 3));
  EXPECT_EQ(text_of("second"), "[b]\nk=3\n");
  EXPECT_EQ(owned.use_count(), 1) << "what was replaced is destroyed";
  const std::string messages = messages_of([&] {  // NOLINT(bugprone-use-after-move): it is safe
    EXPECT_EQ(second.toString(), "");             // NOLINT(clang-analyzer-cplusplus.Move)
    second.write();
    EXPECT_FALSE(second.getString("a", "k", text_, "v") || second.setBoolean("a", "k", true));
  });
  EXPECT_EQ(std::count(messages.begin(), messages.end(), '\n'), 4) << messages;
  EXPECT_EQ(messages.substr(0, 19) + text_, "<2>src/keyfile.cpp:");
  second = KeyFile(std::move(first));
  EXPECT_EQ(second.toString(), "[b]\nk=3\n");
}

// Each allocation in turn, alone and with all later ones. A key appears with its section and its
// text or not at all: the accessor succeeds afterwards.
TEST_F(KeyFiles, Accessors_SurviveEachFailedAllocation) {
  auto rows = accessors_;
  rows.push_back({"", [](KeyFile& file) { return file.toString() == OLD; }, true});
  rows.push_back({"", [](KeyFile& file) { return file.write(), true; }, true});
  rows.push_back({"<3>Failed to read keyfile at file: ",
                  [](KeyFile&) { return KeyFile("file", 0600).toString() == OLD; }, true});
  for (int row = 0; const auto& [failure, succeeds, may_throw] : rows) {
    SCOPED_TRACE(testing::Message() << "row " << ++row << " of accessors_: " << failure);
    for (int nth = 1, failures = 2; failures > 0; ++nth) {
      failures = 0;
      for (const bool all : {false, true}) {
        SCOPED_TRACE(testing::Message() << "allocation " << nth << (all ? " and all later" : ""));
        put("file", OLD);
        KeyFile file("file", 0600);
        bool done = false, thrown = false;
        interposer.failed = false;
        interposer.all_fail = all;
        const auto messages = messages_of([&, &succeeds = succeeds] {
          interposer.allocations_left = nth;  // not before: messages_of allocates, too
          try {
            done = succeeds(file);
          } catch (const std::bad_alloc&) {
            thrown = true;
          }
          interposer.allocations_left = 0;
        });
        failures += interposer.failed;
        const bool silent = done || failure.empty() || (thrown && messages.empty());
        ASSERT_EQ(messages, silent ? "" : failure + "std::bad_alloc\n");
        ASSERT_TRUE(!thrown || may_throw);
        ASSERT_EQ(text_of("file"), text_of("file") == OLD ? OLD : file.toString());
        ASSERT_FALSE(file.toString().starts_with("[a]\n[")) << "a section without its key";
        ASSERT_TRUE(succeeds(file));
        file.write();
        ASSERT_EQ(KeyFile("file", 0600).toString(), file.toString());
      }
      ASSERT_TRUE(nth > 1 || failures == 2) << "nothing failed";
    }
  }
}

TEST_F(KeyFiles, Accessors_TakeTurnsOnOneObject) {  // as the thread sanitizer sees
  KeyFile file("file", 0600, [saves = 0](std::string&, KeyFile::Operation) mutable { ++saves; });
  const auto use = [&] {
    for (int i = 0, number = 0; i < 10; ++i)
      EXPECT_TRUE(file.setInteger("s", "k", i) && file.getInteger("s", "k", number, 0));
  };
  const std::jthread other(use);
  use();
}

}  // namespace
}  // namespace vutil
