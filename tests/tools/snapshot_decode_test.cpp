#include <cstdlib>
#include <cstdio>

#include "mirvak/mv_fcoe_ini.h"
#include "sim_env.h"
#include "snapshot_decode.h"

namespace {
class DefaultSnapshot : public testenv::SimTest {};
TEST_F(DefaultSnapshot, Dump) {
    UseDefaultFabric();
    unsigned int size = 0;
    void* p = nullptr;
    std::string printed = testenv::CaptureOut([&] {
        MvFCoEIni ini;
        p = ini.GetFCoEAll(nullptr, &size);
    });
    ASSERT_NE(p, nullptr);
    auto tree = mv::tool::decode_snapshot(static_cast<unsigned char*>(p), size);
    std::printf("%s\n", tree.dump(1).c_str());
    std::printf("%s\n---printed---\n%s", mv::tool::snapshot_text(tree).c_str(), printed.c_str());
    std::free(p);
}
}  // namespace
