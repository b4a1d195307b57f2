// The measurements' probes, on a platform that answers as the test says.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <openssl/evp.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>

#include "src/measurements/measurements.h"
#include "tests/library/golden_records.h"
#include "tests/support/recording/recorder.h"

namespace {

// What the next read from the random source does, if anything: that many bytes, or -1.
std::optional<int> g_read_result;
int g_reads = 0;

}  // namespace

// Stands before the C library's.
extern "C" ssize_t read(int fd, void* buffer, std::size_t size) {
  ++g_reads;
  if (g_read_result == -1) {
    errno = EIO;
    return -1;
  }
  if (g_read_result) size = static_cast<std::size_t>(*g_read_result);
  return syscall(SYS_read, fd, buffer, size);
}

namespace usage_stat_test {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::ExitedWithCode;
using testing::IsEmpty;
using namespace velmora::usage_stat;

class ProbesTest : public testing::Test {
 protected:
  ProbesTest() {
    Recorded() = Recording();
    Recorded().device_id = reinterpret_cast<const unsigned char*>(
        "0123\0"
        "56789abcdefghij");
    g_read_result = std::nullopt;
  }
};

template <class Measured>
Measured Measure() {
  Measured measurement;
  EXPECT_EQ(measurement.Measure(), 0);
  return measurement;
}

// ---- Language, orientation, version, switch ----

TEST_F(ProbesTest, OrientationAsksTheScreenOnlyWithoutASensor) {
  Recorded().orientation = 70000;
  EXPECT_EQ(Measure<OrientationMeasurement>().event_.orientation_, 0);
  EXPECT_THAT(Recorded().calls, ElementsAre("ReadGSensor null null null"));
  Recorded().gsensor = -2;
  EXPECT_EQ(Measure<OrientationMeasurement>().event_.orientation_, -2);
  Recorded().gsensor = -1;
  EXPECT_EQ(Measure<OrientationMeasurement>().event_.orientation_, 70000);
}

TEST_F(ProbesTest, VersionMayBeUnknown) {
  Recorded().software_version = "6.8";
  VersionMeasurement measurement = Measure<VersionMeasurement>();
  EXPECT_EQ(measurement.event_.version_, "6.8");
  Recorded().software_version = nullptr;
  measurement.Measure();
  EXPECT_EQ(measurement.event_.version_, "6.8");
}

TEST_F(ProbesTest, LanguageOfAnyLengthIsKeptAndNotWritten) {
  Recorded().language = "eng";
  LanguageMeasurement measurement = Measure<LanguageMeasurement>();
  EXPECT_EQ(measurement.event_.language_, "eng");
  std::ostringstream out;
  EXPECT_EQ(measurement.WriteToStream(out), -1);
  EXPECT_EQ(out.str().substr(10), I16(0));
}

TEST_F(ProbesTest, StatisticsAreEnabledUnlessSwitchedOff) {
  for (const int value : {1, -1, 0}) {
    Recorded().statistics_enabled = value;
    EXPECT_EQ(IsStatisticsEnabled(), value != 0);
  }
  EXPECT_EQ(Recorded().calls[0], "OpenConfig /mnt/ext1/system/config/global.cfg 0");
  EXPECT_EQ(Recorded().calls[1], "ReadInt opened statistics_enabled 1");
  EXPECT_EQ(Recorded().calls[2], "CloseConfigNoSave opened");
}

// ---- Keys ----

using Keys = std::vector<std::vector<int>>;  // key, kind, action

Keys KeysOf(const std::vector<Keymapping>& mapping) {
  Keys keys;
  for (const Keymapping& k : mapping) keys.push_back({k.key, k.kind, k.action});
  return keys;
}

TEST_F(ProbesTest, SetZeroTakesPrecedenceOverTheSetAskedFor) {
  struct Row {
    const char* in_set_0;
    const char* in_set_1;
    int action_in_0;  // 0: no record
    int action_in_1;
  };
  for (const Row& row : {Row{nullptr, nullptr, 0, 0},
                         {nullptr, "@KA_abou", 0, 1},
                         {"", "xKA_flgh", 0, 62},
                         {"@KA_none", "@KA_menu", 0, 23},
                         {"@KA_none", "@KA_none", 0, 0},
                         {"@KA_none", nullptr, 0, 0},
                         {"#KA_menu", "@KA_mp3", 23, 23},
                         {"@KA_mp3", "@KA_none", 26, 26},
                         {"@", "@KA_nnot", 0, 33},
                         {"KA_menu", "@KA_note", 0, 35},
                         {"@KA_Menu", "@KA_menus", 0, 0},
                         {"@KA_mp", "@@KA_menu", 0, 0}}) {
    SCOPED_TRACE(std::string(row.in_set_0 ? row.in_set_0 : "null") + " before " +
                 (row.in_set_1 ? row.in_set_1 : "null"));
    Recorded() = Recording();
    Recorded().buttons = 1U << 31 | 1U << 5;
    // The same names in the first list of one button and the second list of another.
    Recorded().first_actions = {{0, {{5, row.in_set_0}}}, {1, {{5, row.in_set_1}}}};
    Recorded().second_actions = {{0, {{31, row.in_set_0}}}, {1, {{31, row.in_set_1}}}};
    const auto expected = [](int action) {
      return action == 0 ? Keys{} : Keys{{5, 0, action}, {31, 1, action}};
    };
    const auto mappings = Measure<KeyboradMappingMeasurement>().event_.mappings_;
    EXPECT_EQ(KeysOf(mappings[0]), expected(row.action_in_0));
    EXPECT_EQ(KeysOf(mappings[1]), expected(row.action_in_1));
    EXPECT_EQ(KeysOf(mappings[2]), expected(row.action_in_0));
  }
}

TEST_F(ProbesTest, OnlyButtonsOfTheDeviceAreReportedInOrder) {
  for (int n = 0; n < 32; ++n) {
    Recorded().first_actions[2][n] = "@KA_next";
    Recorded().second_actions[2][n] = "@KA_prev";
  }
  EXPECT_THAT(Measure<KeyboradMappingMeasurement>().event_.mappings_[2], IsEmpty());
  Recorded().buttons = 1U << 30 | 1;
  EXPECT_EQ(KeysOf(Measure<KeyboradMappingMeasurement>().event_.mappings_[2]),
            (Keys{{0, 0, 32}, {0, 1, 44}, {30, 0, 32}, {30, 1, 44}}));
}

TEST_F(ProbesTest, ActionCodesFollowTheOrderOfTheNames) {
  std::istringstream names(
      "abou appc blnk bmks btsw calc cnts comm conf dict drpc exit frst ftsk goto hidp hist kill "
      "last link lock lrus menu mmnu move mp3 mp3o mp3p mpdf nbmk netw next nnot none note nx10 "
      "nxse obmk olnk onot pgdn pgup pr10 prev prof prse rtte savp scrn spwr srch stsk stty syst "
      "task tctl volm volp zmin zoom zout flgh");
  std::vector<std::pair<std::string, int>> expected;
  for (std::string name; names >> name;) {
    expected.emplace_back("KA_" + name, name == "none" ? 0 : expected.size() + 1);
  }
  std::vector<std::pair<std::string, int>> actions;
  for (const KeyAction& action : kKeyActions) actions.emplace_back(action.name, action.code);
  EXPECT_EQ(actions, expected);
}

// ---- Device identity ----

std::string BytesOf(const std::string& hex) {
  std::string bytes;
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    bytes += Ch(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

// What the collector gets out of the hexadecimal text; nothing when it can't be decrypted.
std::optional<std::string> Decrypted(const std::string& hex_iv, const std::string& hex) {
  const std::string key =
      BytesOf("5e0b7c2a91d4f36810c7a9e2b45d8f1367a0c3e9d21b54f8a6e07c3d9b12f4a5");
  std::string iv = BytesOf(hex_iv);
  iv.resize(16);
  const std::string bytes = BytesOf(hex);
  std::string text(bytes.size() + 16, '\0');
  const auto data = [](const std::string& s) {
    return reinterpret_cast<unsigned char*>(const_cast<char*>(s.data()));
  };
  const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(
      EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
  EVP_DecryptInit_ex(context.get(), EVP_aes_256_cbc(), nullptr, data(key), data(iv));
  int size = 0;
  int last = 0;
  EVP_DecryptUpdate(context.get(), data(text), &size, data(bytes), static_cast<int>(bytes.size()));
  if (EVP_DecryptFinal_ex(context.get(), data(text) + size, &last) != 1) return std::nullopt;
  text.resize(static_cast<std::size_t>(size + last));
  return text;
}

std::string EncryptedSerial() { return Measure<DeviceInfoMeasurement>().event_.encrypted_serial_; }

TEST_F(ProbesTest, DeviceInfoGoesThroughTheFactoryAndIsDecrypted) {
  Recorded().partner = 21;
  Recorded().partner_name = "varsk";
  Recorded().device_model = "Velmora VR-606";
  for (const std::string& serial : {std::string(), std::string(15, 'a'), std::string(16, 'b'),
                                    std::string(17, 'c'), std::string(5000, '\xFF')}) {
    Recorded().serial_number = serial.c_str();
    DeviceInfoMeasurement measurement = Measure<DeviceInfoMeasurement>();
    std::stringstream stream;
    EXPECT_EQ(measurement.WriteToStream(stream), 0);
    const std::unique_ptr<Event> event(Event::CreateFromStream(stream));
    const auto* read = dynamic_cast<const DeviceInfoMeasurement*>(event.get());
    ASSERT_NE(read, nullptr);
    const DeviceInfoEvent& info = read->event_;
    EXPECT_EQ(std::string(info.device_id_.begin(), info.device_id_.end()),
              std::string("0123\0"
                          "56789abcdef\0\0\0\0",
                          20));
    EXPECT_EQ(info.model_code_, 606);
    EXPECT_EQ(info.partner_name_, "varsk");
    EXPECT_EQ(info.encrypted_serial_.size(), 32 + 32 * (serial.size() / 16 + 1));
    EXPECT_EQ(Decrypted(info.encrypted_serial_.substr(0, 32), info.encrypted_serial_.substr(32)),
              serial);
  }
  Recorded().serial_number = "VR606A0012345678";
  EXPECT_NE(EncryptedSerial(), EncryptedSerial());
}

TEST_F(ProbesTest, OnlyTwoPartnersReportSerialNumbers) {
  for (const auto& [partner, times_asked] :
       {std::pair<int, std::size_t>(6, 1), {21, 2}, {0, 2}, {7, 2}}) {
    Recorded().calls.clear();
    Recorded().partner = partner;
    EXPECT_EQ(EncryptedSerial().empty(), partner != 6 && partner != 21) << partner;
    EXPECT_THAT(Recorded().calls,
                ElementsAreArray(std::vector<std::string>(times_asked, "GetCustomizedPartner")));
  }
  Recorded().serial_number = nullptr;
  Recorded().partner = 6;
  g_reads = 0;
  EXPECT_THROW(EncryptedSerial(), std::logic_error);
  EXPECT_EQ(g_reads, 0);  // no vector is made for a number that is not there
  Recorded().partner_name = nullptr;
  EXPECT_THROW(EncryptedSerial(), std::logic_error);
}

TEST_F(ProbesTest, ModelCodesComeFromTheTableOrTheNumberInTheName) {
  for (const auto& [name, code] : {std::pair<const char*, int>("Velmora Oak", 14),
                                   {"Velmora Pine S", 15},
                                   {"velmora oak", 0},
                                   {"", 0},
                                   {"Velmora VR-", 0},
                                   {"Velmora VR-7", 7},
                                   {"Velmora VR-0100", 100},
                                   {"Velmora VR-0x1F", 0},
                                   {"Velmora VR-606b", 606},
                                   {"Velmora VR-X606", 0},
                                   {"Another 11 70000", 4464},
                                   {"Velmora VR--5", -5}}) {
    EXPECT_EQ(DeviceModelCode(name), code) << name;
  }
  std::set<std::string> names;
  std::set<int> codes;
  for (const DeviceModel& model : kDeviceModels) {
    names.insert(model.name);
    codes.insert(model.code);
    EXPECT_TRUE(model.code >= 100 || *codes.rbegin() == static_cast<int>(codes.size()));  // serial
  }
  EXPECT_EQ(names.size(), 31U);
  EXPECT_LT(codes.size(), names.size());  // aliases
}

std::string IvLine(const std::string& condition) {
  return "src/measurements std::vector<unsigned char> GenerateIV(): [pid:4711]Condition: \"" +
         condition + "\", return(\"std::vector<unsigned char>()\")]";
}

// The one line that was logged.
std::string LoggedLine() {
  if (Recorded().log.size() != 1) return "";
  const LogLine& line = Recorded().log[0];
  return line.unit + ' ' + line.function + ": " + line.message;
}

TEST_F(ProbesTest, AShortOrFailedReadOfRandomBytesShortensTheVector) {
  Recorded().partner = 6;
  Recorded().serial_number = "VR606A0012345678";
  for (const int bytes : {5, 0, -1}) {
    Recorded().log.clear();
    g_read_result = bytes;
    const std::string text = EncryptedSerial();
    const std::size_t iv_size = bytes > 0 ? 2 * static_cast<std::size_t>(bytes) : 0;
    EXPECT_EQ(text.size(), iv_size + 64);
    EXPECT_EQ(Decrypted(text.substr(0, iv_size), text.substr(iv_size)), "VR606A0012345678");
    EXPECT_EQ(LoggedLine(), bytes < 0 ? IvLine("-1 == len") : "");
  }
}

[[noreturn]] void MeasureWithoutDescriptors() {
  Recorded().partner = 6;
  EncryptedSerial();  // what a sanitizer does for its first check needs a descriptor
  const rlimit none{};
  setrlimit(RLIMIT_NOFILE, &none);
  Recorded().serial_number = "SN";
  const std::string text = EncryptedSerial();
  _exit(text.size() == 32 && Decrypted("", text) == "SN" && LoggedLine() == IvLine("-1 == fd") ? 0
                                                                                               : 1);
}

TEST_F(ProbesTest, WithoutARandomSourceTheCiphertextStandsAlone) {
  EXPECT_EXIT(MeasureWithoutDescriptors(), ExitedWithCode(0), "");
}

TEST_F(ProbesTest, EachVectorKeepsItsDescriptor) {
  const int before = dup(STDIN_FILENO);
  close(before);
  EXPECT_EQ(GenerateIV().size(), 16U);
  const int after = dup(STDIN_FILENO);
  EXPECT_EQ(after, before + 1);
  EXPECT_EQ(fcntl(before, F_GETFD), FD_CLOEXEC);
  close(before);
  close(after);
}

}  // namespace
}  // namespace usage_stat_test
