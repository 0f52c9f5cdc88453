// Adapter enumeration and the adapter-wide attributes.
#include <cstring>
#include <string>

#include "mirvak/hba_plugin.h"
#include "mirvak/instance_map.h"
#include "sim/tusksim.h"
#include "sim_env.h"

namespace {

using testenv::Calls;
using testenv::Fill;
using testenv::Untouched;

const char* kTwoAdapters = R"({"adapters":[
  {"instance":1,
   "hw":{"manufacturer":"Mirvak Systems","model":"MV-2210","serial_num":"SN0001",
         "hw_version":"B2","drv_version":"3.4.5","vendor_id":"0x1d7e",
         "optrom_version":0,"fw_version":"0x12345678","ports":[{},{}]}},
  {"instance":4,
   "hw":{"manufacturer":"Mirvak Systems","model":"MV-4410","serial_num":"SN0002",
         "optrom_version":305,"fw_version":"0xF1020304","num_ports":4,"ports":[{}]}}]})";

class AdapterTest : public testenv::SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        UseFabric(kTwoAdapters);
        mirvak_LoadLibrary();
        testenv::ResetCalls();
    }
    void TearDown() override {
        mirvak_FreeLibrary();
        SimTest::TearDown();
    }
};

TEST_F(AdapterTest, CountsAdaptersThatAnswerTheProbe) {
    EXPECT_EQ(mirvak_GetNumberOfAdapters(), 2u);
    EXPECT_EQ(Calls("open_adapter"), 32u);
    EXPECT_EQ(Calls("tusk_probe_adapter"), 2u);
    EXPECT_EQ(Calls("close_adapter"), 2u);
}

TEST_F(AdapterTest, CountingNeitherReadsNorChangesTheMap) {
    UseFabric(R"({"adapters":[{"instance":9,"hw":{"ports":[{}]}}]})");
    EXPECT_EQ(mirvak_GetNumberOfAdapters(), 1u);
    EXPECT_EQ(adapCnt, 2u);
    EXPECT_STREQ(InstanceMap[0].name, "/dev/tuskstor1");
}

TEST_F(AdapterTest, AdapterFailingTheProbeIsNotCounted) {
    UseFabric(R"({"adapters":[{"instance":9,"probe_status":3,"hw":{"ports":[{}]}},
                              {"instance":10,"hw":{"ports":[{}]}}]})");
    EXPECT_EQ(mirvak_GetNumberOfAdapters(), 1u);
}

TEST_F(AdapterTest, NameIsTheDevicePathAndRefreshesTheMap) {
    char name[64];
    Fill(name, sizeof name);
    EXPECT_EQ(mirvak_GetAdapterName(1, name), 0u);
    EXPECT_STREQ(name, "/dev/tuskstor4");
    EXPECT_TRUE(Untouched(name + 15, sizeof name - 15));
    EXPECT_EQ(Calls("open_adapter"), 32u);

    UseFabric(R"({"adapters":[{"instance":7,"hw":{"ports":[{}]}}]})");
    EXPECT_EQ(mirvak_GetAdapterName(0, name), 0u);
    EXPECT_STREQ(name, "/dev/tuskstor7");
    EXPECT_EQ(adapCnt, 1u);
}

TEST_F(AdapterTest, NameOfIndex33IsAnIllegalIndex) {
    char name[64];
    Fill(name, sizeof name);
    EXPECT_EQ(mirvak_GetAdapterName(33, name), 6u);
    EXPECT_TRUE(Untouched(name, sizeof name));
    EXPECT_EQ(mirvak_GetAdapterName(0xFFFFFFFFu, name), 6u);
}

TEST_F(AdapterTest, NameOfIndex32IsEmptyWithStatusZero) {
    char name[64];
    Fill(name, sizeof name);
    EXPECT_EQ(mirvak_GetAdapterName(32, name), 0u);
    EXPECT_STREQ(name, "");
}

TEST_F(AdapterTest, NameOfAnUnusedIndexIsEmptyWithStatusZero) {
    UseFabric(R"({"adapters":[{"instance":0,"hw":{"ports":[{}]}}]})");
    mirvak_FreeLibrary();
    mirvak_LoadLibrary();
    char name[64];
    Fill(name, sizeof name);
    EXPECT_EQ(mirvak_GetAdapterName(2, name), 0u);
    EXPECT_STREQ(name, "");
}

TEST_F(AdapterTest, NameOfAnIndexPastTheCountKeepsAnEarlierMapping) {
    UseFabric(R"({"adapters":[{"instance":0,"hw":{"ports":[{}]}}]})");
    char name[64];
    EXPECT_EQ(mirvak_GetAdapterName(1, name), 0u);
    EXPECT_STREQ(name, "/dev/tuskstor4");
}

class AdapterAttributesTest : public AdapterTest {
protected:
    void SetUp() override {
        AdapterTest::SetUp();
        handle = mirvak_OpenAdapter("/dev/tuskstor1");
        ASSERT_NE(handle, 0xFFFFFFFFu);
        testenv::ResetCalls();
        Fill(&attr, sizeof attr);
    }
    void TearDown() override {
        mirvak_CloseAdapter(handle);
        AdapterTest::TearDown();
    }
    HBA_HANDLE handle = 0;
    HBA_ADAPTERATTRIBUTES attr;
};

TEST_F(AdapterAttributesTest, FillsTheStandardRecordFromTheHardwareRecord) {
    EXPECT_EQ(mirvak_GetAdapterAttributes(handle, &attr), 0u);
    EXPECT_STREQ(attr.Manufacturer, "Mirvak Systems");
    EXPECT_STREQ(attr.SerialNumber, "SN0001");
    EXPECT_STREQ(attr.Model, "MV-2210");
    EXPECT_STREQ(attr.HardwareVersion, "B2");
    EXPECT_STREQ(attr.DriverVersion, "3.4.5");
    EXPECT_STREQ(attr.OptionROMVersion, "0");
    EXPECT_STREQ(attr.FirmwareVersion, "2.52.86.120");
    EXPECT_EQ(attr.VendorSpecificID, 0x1d7eu);
    EXPECT_EQ(attr.NumberOfPorts, 2u);
    EXPECT_EQ(Calls("tusk_get_hw_info"), 1u);
}

TEST_F(AdapterAttributesTest, NodeWwnIsAlwaysOneToEight) {
    EXPECT_EQ(mirvak_GetAdapterAttributes(handle, &attr), 0u);
    const HBA_UINT8 expected[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(std::memcmp(attr.NodeWWN.wwn, expected, 8), 0);

    const HBA_HANDLE other = mirvak_OpenAdapter("/dev/tuskstor4");
    HBA_ADAPTERATTRIBUTES second;
    Fill(&second, sizeof second);
    EXPECT_EQ(mirvak_GetAdapterAttributes(other, &second), 0u);
    EXPECT_EQ(std::memcmp(second.NodeWWN.wwn, expected, 8), 0);
    mirvak_CloseAdapter(other);
}

TEST_F(AdapterAttributesTest, FirmwareDropsTheTopFourBitsAndNumPortsComesFromTheDriver) {
    const HBA_HANDLE other = mirvak_OpenAdapter("/dev/tuskstor4");
    EXPECT_EQ(mirvak_GetAdapterAttributes(other, &attr), 0u);
    EXPECT_STREQ(attr.FirmwareVersion, "1.2.3.4");
    EXPECT_STREQ(attr.OptionROMVersion, "305");
    EXPECT_EQ(attr.NumberOfPorts, 4u);
    EXPECT_STREQ(attr.HardwareVersion, "");
    mirvak_CloseAdapter(other);
}

TEST_F(AdapterAttributesTest, LeavesTheFieldsItDoesNotFill) {
    EXPECT_EQ(mirvak_GetAdapterAttributes(handle, &attr), 0u);
    EXPECT_TRUE(Untouched(attr.ModelDescription, sizeof attr.ModelDescription));
    EXPECT_TRUE(Untouched(attr.NodeSymbolicName, sizeof attr.NodeSymbolicName));
    EXPECT_TRUE(Untouched(attr.DriverName, sizeof attr.DriverName));
    // Text fields are written up to their NUL only.
    EXPECT_TRUE(Untouched(attr.Manufacturer + 15, sizeof attr.Manufacturer - 15));
    EXPECT_TRUE(Untouched(attr.FirmwareVersion + 12, sizeof attr.FirmwareVersion - 12));
}

TEST_F(AdapterAttributesTest, InvalidHandleIsRefusedBeforeAnyDriverCall) {
    EXPECT_EQ(mirvak_GetAdapterAttributes(0xFFFFFFFFu, &attr), 0xFFFFFFFFu);
    EXPECT_TRUE(Untouched(&attr, sizeof attr));
    EXPECT_EQ(tusksim_call_total(), 0u);
}

TEST_F(AdapterAttributesTest, FailedHardwareQueryPassesItsStatusAndWritesNothing) {
    tusksim_add_fault("tusk_get_hw_info", 1, 42, 0);
    EXPECT_EQ(mirvak_GetAdapterAttributes(handle, &attr), 42u);
    EXPECT_TRUE(Untouched(&attr, sizeof attr));
}

TEST_F(AdapterAttributesTest, DriverTextsWithoutNulStopAtTheirField) {
    // 32 letters at offset 0 (manufacturer) and at 32 (model): no NUL in
    // either field.
    std::string hex;
    for (int i = 0; i < 64; ++i) hex += (i == 0 ? "" : " ") + std::string(i < 32 ? "41" : "42");
    UseFabric(R"({"adapters":[{"instance":1,"hw":{"ports":[{}],"raw":[{"offset":0,"hex":")" + hex +
              R"("}]}}]})");
    const HBA_HANDLE h = mirvak_OpenAdapter("/dev/tuskstor1");
    EXPECT_EQ(mirvak_GetAdapterAttributes(h, &attr), 0u);
    mirvak_CloseAdapter(h);
    EXPECT_EQ(std::string(attr.Manufacturer), std::string(32, 'A'));
    EXPECT_EQ(std::string(attr.Model), std::string(32, 'B'));
}

}  // namespace
