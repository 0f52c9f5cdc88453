// The plug-in as the distribution's HBA API front library sees it: the front
// library reads its own configuration (/etc/hba.conf, redirected to the
// simulated host), loads the freshly built plug-in and calls it through the
// entry-point table the plug-in filled.
#include <time.h>

#include <hbaapi.h>

#include <cstring>
#include <string>

#include "sim_env.h"

namespace {

const char* kFabric = R"({"adapters":[
  {"instance":2,
   "hw":{"manufacturer":"Mirvak Systems","model":"MV-2210","serial_num":"SN-A",
         "hw_version":"B2","drv_version":"3.4.5","vendor_id":"0x1d7e",
         "optrom_version":17,"fw_version":"0x01020304","ports":[{},{}]}},
  {"instance":5,
   "hw":{"manufacturer":"Mirvak Systems","model":"MV-4410","serial_num":"SN-B",
         "fw_version":"0x04030201","ports":[{}]}}]})";

class FrontLibrary : public testenv::SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        RegisterPlugin(MIRVAK_PLUGIN_PATH);
        UseFabric(kFabric);
        ASSERT_EQ(HBA_LoadLibrary(), HBA_STATUS_OK);
    }
    void TearDown() override {
        HBA_FreeLibrary();
        SimTest::TearDown();
    }
    // The front library's name for adapter i.
    std::string Name(HBA_UINT32 i) {
        char name[256] = {};
        EXPECT_EQ(HBA_GetAdapterName(i, name), HBA_STATUS_OK);
        return name;
    }
};

TEST_F(FrontLibrary, CountsTheSimulatedAdapters) {
    EXPECT_EQ(HBA_GetNumberOfAdapters(), 2u);
}

TEST_F(FrontLibrary, NamesTheAdaptersByDevicePath) {
    ASSERT_EQ(HBA_GetNumberOfAdapters(), 2u);
    EXPECT_NE(Name(0).find("/dev/tuskstor2"), std::string::npos) << Name(0);
    EXPECT_NE(Name(1).find("/dev/tuskstor5"), std::string::npos) << Name(1);
}

TEST_F(FrontLibrary, ReadsAdapterAttributesThroughTheOpenHandle) {
    HBA_GetNumberOfAdapters();
    const HBA_HANDLE h = HBA_OpenAdapter(const_cast<char*>(Name(0).c_str()));
    ASSERT_NE(h, 0u) << Name(0);
    HBA_ADAPTERATTRIBUTES attr;
    std::memset(&attr, 0, sizeof attr);
    EXPECT_EQ(HBA_GetAdapterAttributes(h, &attr), HBA_STATUS_OK) << Name(0) << " handle " << h;
    EXPECT_STREQ(attr.Manufacturer, "Mirvak Systems");
    EXPECT_STREQ(attr.Model, "MV-2210");
    EXPECT_STREQ(attr.SerialNumber, "SN-A");
    EXPECT_STREQ(attr.FirmwareVersion, "1.2.3.4");
    EXPECT_STREQ(attr.OptionROMVersion, "17");
    EXPECT_EQ(attr.NumberOfPorts, 2u);
    EXPECT_EQ(attr.VendorSpecificID, 0x1d7eu);
    const HBA_UINT8 node[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(std::memcmp(attr.NodeWWN.wwn, node, 8), 0);
    HBA_CloseAdapter(h);
}

TEST_F(FrontLibrary, SecondAdapterHasItsOwnAttributes) {
    HBA_GetNumberOfAdapters();
    const HBA_HANDLE h = HBA_OpenAdapter(const_cast<char*>(Name(1).c_str()));
    ASSERT_NE(h, 0u);
    HBA_ADAPTERATTRIBUTES attr;
    std::memset(&attr, 0, sizeof attr);
    EXPECT_EQ(HBA_GetAdapterAttributes(h, &attr), HBA_STATUS_OK);
    EXPECT_STREQ(attr.Model, "MV-4410");
    EXPECT_STREQ(attr.FirmwareVersion, "4.3.2.1");
    EXPECT_EQ(attr.NumberOfPorts, 1u);
    HBA_CloseAdapter(h);
}

TEST_F(FrontLibrary, UnknownAdapterNameDoesNotOpen) {
    HBA_GetNumberOfAdapters();
    EXPECT_EQ(HBA_OpenAdapter(const_cast<char*>("/dev/tuskstor9")), 0u);
}

}  // namespace
