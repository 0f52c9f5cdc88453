// The installed plug-in as a host's front library takes it: the installed
// mirvak-hba-register writes the simulated host's hba.conf (the front
// library's own format, comments and all), Debian's front library reads it
// through the redirector and loads the plug-in from the staging folder.
#include <time.h>

#include <hbaapi.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "sim_env.h"

namespace {

const char* kFabric = R"({"adapters":[
  {"instance":3,
   "hw":{"manufacturer":"Mirvak Systems","model":"MV-2210","ports":[{},{}]}},
  {"instance":7,
   "hw":{"manufacturer":"Mirvak Systems","model":"MV-4410","ports":[{}]}}]})";

// The front library's configuration as a host has it before registration.
const char* kHostConf =
    "# \n"
    "# This file contains names and references to HBA libraries\n"
    "#\n"
    "# <library name>  <library pathname>\n"
    "\n"
    "#debuglevel 3\n";

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// Which plug-in files the process has mapped.
bool mapped(const std::string& path) { return slurp("/proc/self/maps").find(path) != std::string::npos; }

class InstalledPlugin : public testenv::SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        UseFabric(kFabric);  // writes the host; its hba.conf is replaced below
        conf_ = root() + "/etc/hba.conf";
        std::ofstream(conf_, std::ios::binary) << kHostConf;
    }
    void TearDown() override {
        HBA_FreeLibrary();
        SimTest::TearDown();
    }
    // Runs the installed mirvak-hba-register on the simulated host's file.
    int Register(const std::string& action) {
        const std::string command = std::string(MIRVAK_STAGED_REGISTER) + " " + action + " --conf " + conf_ +
                                    (action == "remove" ? "" : std::string(" --plugin ") + MIRVAK_STAGED_PLUGIN);
        return std::system(command.c_str());
    }
    std::string conf_;
};

TEST_F(InstalledPlugin, RegisteredLineFollowsTheHostsOwnLines) {
    ASSERT_EQ(Register("add"), 0);
    EXPECT_EQ(slurp(conf_), std::string(kHostConf) + "com.mirvak.fcoe\t" + MIRVAK_STAGED_PLUGIN + "\n");
}

TEST_F(InstalledPlugin, FrontLibraryLoadsTheInstalledPlugin) {
    ASSERT_EQ(Register("add"), 0);
    ASSERT_EQ(HBA_LoadLibrary(), HBA_STATUS_OK);
    EXPECT_EQ(HBA_GetNumberOfAdapters(), 2u);
    EXPECT_TRUE(mapped(MIRVAK_STAGED_PLUGIN));
    EXPECT_FALSE(mapped(MIRVAK_BUILT_PLUGIN));
}

TEST_F(InstalledPlugin, AdaptersAnswerThroughTheInstalledPlugin) {
    ASSERT_EQ(Register("add"), 0);
    ASSERT_EQ(HBA_LoadLibrary(), HBA_STATUS_OK);
    ASSERT_EQ(HBA_GetNumberOfAdapters(), 2u);
    char name[256] = {};
    ASSERT_EQ(HBA_GetAdapterName(1, name), HBA_STATUS_OK);
    EXPECT_NE(std::string(name).find("/dev/tuskstor7"), std::string::npos) << name;
    const HBA_HANDLE h = HBA_OpenAdapter(name);
    ASSERT_NE(h, 0u);
    HBA_ADAPTERATTRIBUTES attr{};
    EXPECT_EQ(HBA_GetAdapterAttributes(h, &attr), HBA_STATUS_OK);
    EXPECT_STREQ(attr.Model, "MV-4410");
    EXPECT_EQ(attr.NumberOfPorts, 1u);
    HBA_CloseAdapter(h);
}

TEST_F(InstalledPlugin, RemovedRegistrationLeavesNoAdapters) {
    ASSERT_EQ(Register("add"), 0);
    ASSERT_EQ(Register("remove"), 0);
    EXPECT_EQ(slurp(conf_), kHostConf);
    // The front library has no plug-in left to load.
    EXPECT_EQ(HBA_LoadLibrary(), HBA_STATUS_ERROR);
    EXPECT_EQ(HBA_GetNumberOfAdapters(), 0u);
    EXPECT_FALSE(mapped(MIRVAK_STAGED_PLUGIN));
}

}  // namespace
