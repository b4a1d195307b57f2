#include <gmock/gmock.h>
#include <sys/resource.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <thread>

#include "corvane/corvane.h"
#include "tests/support/device_root.h"
#include "tests/support/secure_mode.h"

namespace {

using testing::Each;
using testing::IsEmpty;
using testing::IsNull;
using testing::StrEq;
using usage_stat_test::DeviceRoot;
using usage_stat_test::kDeviceConfig;
using usage_stat_test::StderrCapture;

std::string FirstBytesOfId() {
  return std::string(reinterpret_cast<const char*>(GetDeviceID()), 16);
}

using Actions = std::array<const char*, 32>;

TEST(DeviceFacts, HaveDefaultsWithoutAnyFile) {
  const DeviceRoot root;
  StderrCapture capture;
  EXPECT_EQ(FirstBytesOfId(), std::string(16, '\0'));
  EXPECT_STREQ(GetSerialNumber(), "");
  EXPECT_STREQ(GetDeviceModel(), "Velmora VR-Host");
  EXPECT_STREQ(GetSoftwareVersion(), "0.0.0");
  EXPECT_EQ(GetCustomizedPartner(), 0);
  EXPECT_STREQ(GetCustomizedPartnerName(), "");
  EXPECT_EQ(GetOrientation(), 0);
  EXPECT_EQ(ReadGSensor(nullptr, nullptr, nullptr), -1);
  EXPECT_EQ(QueryDeviceButtons(), 0U);
  Actions first;
  Actions second;
  GetKeyMappingEx(0, first.data(), second.data(), 32);
  EXPECT_THAT(first, Each(IsNull()));
  EXPECT_THAT(second, Each(IsNull()));
  EXPECT_THAT(capture.Writes(), IsEmpty());
}

TEST(DeviceFacts, FollowTheFileAtOnce) {
  const DeviceRoot root;
  root.Write(kDeviceConfig,
             "serial_number=S 1\nmodel=M\nsoftware_version=V\npartner_number=21\n"
             "partner_name=P\norientation=3\n");
  usage_stat_test::g_has_more_rights = true;  // then nobody else says where the device's files are
  EXPECT_STREQ(GetSerialNumber(), "");
  usage_stat_test::g_has_more_rights = false;
  EXPECT_STREQ(GetSerialNumber(), "S 1");
  EXPECT_STREQ(GetDeviceModel(), "M");
  EXPECT_STREQ(GetSoftwareVersion(), "V");
  EXPECT_EQ(GetCustomizedPartner(), 21);
  const char* partner = GetCustomizedPartnerName();
  EXPECT_EQ(GetOrientation(), 3);

  root.Write(kDeviceConfig, "partner_name=Q\n");
  std::thread([] { EXPECT_STREQ(GetCustomizedPartnerName(), "Q"); }).join();
  EXPECT_STREQ(partner, "P") << "another thread's call overwrote this thread's text";
}

// What is kept of a file that has stood unchanged for a while must not outlive it, even if the new
// one has the old one's size and time of modification.
TEST(DeviceFacts, FollowAFileThatLooksLikeItsPredecessor) {
  const DeviceRoot root;
  // A sanitizer that meets a class for the first time opens descriptors.
  root.Write(kDeviceConfig, "partner_name=O\n");
  EXPECT_STREQ(GetCustomizedPartnerName(), "O");
  root.Write(kDeviceConfig, "partner_name=P\n");
  const std::string path = root.HostPath(kDeviceConfig);
  const auto modified = std::filesystem::last_write_time(path);
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  {  // nor must what could not be read
    const StderrCapture quiet;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none = {0, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_STREQ(GetCustomizedPartnerName(), "");
    setrlimit(RLIMIT_NOFILE, &limit);
  }
  EXPECT_STREQ(GetCustomizedPartnerName(), "P");
  EXPECT_STREQ(GetCustomizedPartnerName(), "P");
  root.Write(kDeviceConfig, "partner_name=Q\n");
  std::filesystem::last_write_time(path, modified);
  EXPECT_STREQ(GetCustomizedPartnerName(), "Q");
  std::filesystem::remove(path);
  EXPECT_STREQ(GetCustomizedPartnerName(), "");
}

TEST(DeviceFacts, IdComesFromTheFileOrTheMachine) {
  const std::string hex = "00112233445566778899AaBbCcDdEeFf";
  const std::string bytes("\x00\x11\x22\x33\x44\x55\x66\x77\x88\x99\xAA\xBB\xCC\xDD\xEE\xFF", 16);
  const std::string machine = "0123456789abcdef0123456789abcdef\n";
  const DeviceRoot root;
  const auto id_with = [&](const std::string& config, const std::string& machine_id) {
    root.Write(kDeviceConfig, config);
    root.Write("/etc/machine-id", machine_id);
    return FirstBytesOfId();
  };
  StderrCapture capture;
  EXPECT_EQ(id_with("device_id=" + hex, machine), bytes);
  EXPECT_EQ(id_with("device_id=" + hex + "77", machine), bytes);
  // As `openssl dgst -sha256 -mac HMAC -macopt hexkey:0123...` prints it.
  const std::string of_machine("\xf9\x3f\x25\xb9\x14\x61\x2f\xf8\xad\x50\xf3\x68\x1e\x32\xe7\x7c",
                               16);
  EXPECT_EQ(id_with("", machine), of_machine);
  EXPECT_THAT(capture.Writes(), IsEmpty());
  for (const std::string& bad : {hex.substr(1), hex + "7", hex.substr(2),
                                 hex + std::string(98, '0'), hex.substr(1) + "g", std::string()}) {
    EXPECT_EQ(id_with("device_id=" + bad, machine), of_machine);
    EXPECT_EQ(capture.Writes().size(), 1U) << bad;
  }
  EXPECT_EQ(id_with("", "uninitialized\n"), std::string(16, '\0'));
}

TEST(Sensor, ReadingDecidesTheOrientation) {
  struct Case {
    const char* gsensor;
    int orientation;
  };
  const DeviceRoot root;
  const StderrCapture quiet;
  for (const auto& [gsensor, orientation] :
       {Case{"0,980,190", 0}, Case{"-800, 100,5", 1}, Case{"0,-1000,0", 2}, Case{"900,-10,0", 3},
        Case{"499,-499,-1000", 7}, Case{"500,0,-1000", 3}, Case{"-2147483648,0,0", 1},
        Case{"700,700,0", 0}, Case{"none", -1}, Case{"", -1}, Case{"1,2", -1}, Case{"1,2,3,4", -1},
        Case{"a,b,c", -1}, Case{"1,2,99999999999", -1}}) {
    SCOPED_TRACE(gsensor);
    root.Write(kDeviceConfig, std::string("orientation=7\ngsensor=") + gsensor);
    EXPECT_EQ(ReadGSensor(nullptr, nullptr, nullptr), orientation);
  }
}

TEST(Sensor, KernelsAccelerometerCountsWhenTheFileIsSilent) {
  const DeviceRoot root;
  const std::string devices = "/sys/bus/iio/devices/";
  root.Write(devices + "iio:device0/in_temp_raw", "20\n");  // another kind of sensor
  const std::string sensor = devices + "iio:device1/in_accel";
  root.Write(sensor + "_x_raw", "-1016\n");
  root.Write(sensor + "_y_raw", "8\n");
  root.Write(sensor + "_z_raw", "0\n");
  EXPECT_EQ(ReadGSensor(nullptr, nullptr, nullptr), -1) << "a sensor without a scale";
  root.Write(sensor + "_scale", "0.00980665\n");
  root.Write(sensor + "_x_offset", "16\n");
  root.Write(sensor + "_y_scale", "0.0980665\n");
  int x = 0;
  int y = 0;
  int z = 1;
  EXPECT_EQ(ReadGSensor(&x, &y, &z), 1);
  EXPECT_EQ(x, -1000);
  EXPECT_EQ(y, 80);
  EXPECT_EQ(z, 0);
  root.Write(sensor + "_scale", "1e300\n");
  EXPECT_EQ(ReadGSensor(nullptr, nullptr, nullptr), -1) << "a reading that fits no int";
  root.Write(kDeviceConfig, "gsensor=none\n");
  EXPECT_EQ(ReadGSensor(nullptr, nullptr, nullptr), -1);
}

TEST(Keys, MaskIsDecimalOrHex) {
  struct Case {
    const char* text;
    unsigned int mask;
  };
  const DeviceRoot root;
  const StderrCapture quiet;
  for (const auto& [text, mask] :
       {Case{"63", 63}, Case{"0x3f000000", 0x3f000000}, Case{"0XFFFFFFFF", 0xffffffff},
        Case{"4294967296", 0}, Case{"-1", 0}, Case{"0x", 0}, Case{"3f", 0}, Case{"", 0}}) {
    root.Write(kDeviceConfig, std::string("buttons=") + text);
    EXPECT_EQ(QueryDeviceButtons(), mask) << text;
  }
}

TEST(Keys, NamesAreThoseOfTheSet) {
  const DeviceRoot root;
  root.Write(kDeviceConfig,
             "key.0.first.0=@KA_a\nkey.0.second.31=@KA_b\nkey.1.first.0=@KA_c\n"
             "key.2.second.0=\nkey.0.first.32=@KA_none\n");
  std::array<const char*, 40> first;
  GetKeyMappingEx(0, first.data(), nullptr, 40);
  EXPECT_THAT(first[0], StrEq("@KA_a"));
  EXPECT_THAT(first[32], IsNull());
  Actions second;
  GetKeyMappingEx(0, nullptr, second.data(), 32);
  EXPECT_THAT(second[0], IsNull());
  EXPECT_THAT(second[31], StrEq("@KA_b"));
  Actions other;
  GetKeyMappingEx(1, other.data(), nullptr, 32);
  EXPECT_THAT(other[0], StrEq("@KA_c"));
  GetKeyMappingEx(2, nullptr, nullptr, -1);
  for (const int no_set : {-1, 2, 3}) {
    GetKeyMappingEx(no_set, other.data(), second.data(), 32);
    EXPECT_THAT(other, Each(IsNull()));
    EXPECT_THAT(second, Each(IsNull()));
  }
}

}  // namespace
