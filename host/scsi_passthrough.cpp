// SCSI commands to a LUN through the host's SCSI generic driver: the LUN's
// device node is found by the target-mapping lookup and the command goes out
// with the SG_IO ioctl.
#include <fcntl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "driver/entry_lock.h"
#include "mirvak/fcp_mapping.h"
#include "mirvak/hba_plugin.h"

namespace {

constexpr int kMinSgVersion = 30000;
constexpr std::size_t kPathBuffer = 256;

// Transfer lengths are fixed whatever the caller's buffer holds.
constexpr unsigned kInquiryTransfer = 96;
constexpr unsigned kReportLunsTransfer = 1024;
constexpr unsigned kCapacityTransfer = 32;
constexpr unsigned kInquiryTimeoutMs = 3000;
constexpr unsigned kTimeoutMs = 20000;

constexpr HBA_STATUS kMinusOne = static_cast<HBA_STATUS>(-1);

// The device path of the LUN the command goes to, into a cleared buffer.
int look_up(HBA_HANDLE handle, HBA_UINT64 lun, HBA_WWN port_wwn, HBA_UINT32 first, char (&path)[kPathBuffer]) {
    std::memset(path, 0, sizeof path);
    HBA_WWN unused;
    std::memset(&unused, 0, sizeof unused);
    return GetDeviceFromFCPLunOrPortWWN(handle, lun, 0, port_wwn, unused, path, first);
}

bool sg_version_ok(int fd) {
    int version = 0;
    return ioctl(fd, SG_GET_VERSION_NUM, &version) >= 0 && version >= kMinSgVersion;
}

sg_io_hdr_t request(unsigned char* cdb, unsigned char cdb_len, unsigned char sense_len, unsigned transfer,
                    void* data, void* sense, unsigned timeout) {
    sg_io_hdr_t io;
    std::memset(&io, 0, sizeof io);
    io.interface_id = 'S';
    io.dxfer_direction = SG_DXFER_FROM_DEV;
    io.cmd_len = cdb_len;
    io.mx_sb_len = sense_len;
    io.dxfer_len = transfer;
    io.dxferp = data;
    io.cmdp = cdb;
    io.sbp = static_cast<unsigned char*>(sense);
    io.timeout = timeout;
    return io;
}

void put_be32(unsigned char* p, uint32_t v) {
    p[0] = static_cast<unsigned char>(v >> 24);
    p[1] = static_cast<unsigned char>(v >> 16);
    p[2] = static_cast<unsigned char>(v >> 8);
    p[3] = static_cast<unsigned char>(v);
}

// Descriptors the original left open on its error paths are closed here;
// callers see no difference.
struct Descriptor {
    int fd = -1;
    Descriptor() = default;
    explicit Descriptor(const char* path) : fd(open(path, O_RDONLY)) {}
    ~Descriptor() {
        if (fd >= 0) close(fd);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    bool ok() const { return fd >= 0; }
};

// REPORT LUNS and READ CAPACITY go to the first LUN found behind the port:
// its node opened as a SCSI generic device in `dev`. 0, or the lookup's
// status, or -1 when the node cannot be opened or is no such device.
HBA_STATUS open_first_lun(HBA_HANDLE handle, HBA_WWN port_wwn, Descriptor& dev) {
    char path[kPathBuffer];
    if (int s = look_up(handle, 0, port_wwn, 1, path)) return static_cast<HBA_STATUS>(s);
    dev.fd = open(path, O_RDONLY);
    if (!dev.ok()) return kMinusOne;
    if (!sg_version_ok(dev.fd)) {
        std::printf("%s is not an sg device, or old sg driver\n", path);
        return kMinusOne;
    }
    return HBA_STATUS_OK;
}

}  // namespace

extern "C" {

HBA_STATUS mirvak_issue_inquiry(const char* path, HBA_UINT8 evpd, HBA_UINT32 page, HBA_UINT64, void* rsp,
                                HBA_UINT32* rsp_size, void* sense, HBA_UINT32* sense_size) {
    const mv::EntryLock entry_lock;
    Descriptor dev(path);
    if (!dev.ok()) {
        std::perror("Error occured while opening the device ->");
        return HBA_STATUS_ERROR_INVALID_LUN;
    }
    if (!sg_version_ok(dev.fd)) return HBA_STATUS_ERROR;

    const HBA_UINT32 size = *rsp_size;
    unsigned char cdb[6] = {0x12, evpd, static_cast<unsigned char>(page), 0, 0, 0};
    // Bits 31-8 of the response size go into bytes 3 to 5, one byte lower
    // than the allocation-length field: for sizes below 64 KiB that field is
    // 0 and the control byte carries bits 15-8. The targets agents use
    // answer it as it is, so the placement is kept.
    cdb[3] = static_cast<unsigned char>(size >> 24);
    cdb[4] = static_cast<unsigned char>(size >> 16);
    cdb[5] = static_cast<unsigned char>(size >> 8);
    std::memset(rsp, 0, size);
    sg_io_hdr_t io = request(cdb, sizeof cdb, static_cast<unsigned char>(*sense_size), kInquiryTransfer, rsp, sense,
                             kInquiryTimeoutMs);
    if (ioctl(dev.fd, SG_IO, &io) < 0) {
        std::perror("sg_simple0: Inquiry SG_IO ioctl error");
        return HBA_STATUS_ERROR;
    }
    return HBA_STATUS_OK;
}

HBA_STATUS mirvak_SendScsiInquiry(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_UINT64 fcp_lun, HBA_UINT8 evpd,
                                  HBA_UINT32 page, void* rsp, HBA_UINT32 rsp_size, void* sense,
                                  HBA_UINT32 sense_size) {
    const mv::EntryLock entry_lock;
    char path[kPathBuffer];
    if (int s = look_up(handle, fcp_lun, port_wwn, 0, path)) return static_cast<HBA_STATUS>(s);
    return mirvak_issue_inquiry(path, evpd, page, fcp_lun, rsp, &rsp_size, sense, &sense_size);
}

HBA_STATUS mirvak_SendReportLUNs(HBA_HANDLE handle, HBA_WWN port_wwn, void* rsp, HBA_UINT32 rsp_size, void* sense,
                                 HBA_UINT32 sense_size) {
    const mv::EntryLock entry_lock;
    std::memset(rsp, 0, rsp_size);
    unsigned char cdb[12] = {0xA0};
    put_be32(&cdb[6], rsp_size);

    Descriptor dev;
    if (HBA_STATUS s = open_first_lun(handle, port_wwn, dev)) return s;
    sg_io_hdr_t io = request(cdb, sizeof cdb, static_cast<unsigned char>(sense_size), kReportLunsTransfer, rsp, sense,
                             kTimeoutMs);
    if (ioctl(dev.fd, SG_IO, &io) < 0) {
        std::printf("sg_simple0: Inquiry SG_IO ioctl error");
        return kMinusOne;
    }
    const auto* r = static_cast<const unsigned char*>(rsp);
    const uint32_t length = (uint32_t{r[0]} << 24) | (uint32_t{r[1]} << 16) | (uint32_t{r[2]} << 8) | r[3];
    const int entries = static_cast<int>(length / 8);
    std::printf("Lun list length = %d which imples %d lun entr%s\n", static_cast<int>(length), entries,
                entries == 1 ? "y" : "ies");
    return HBA_STATUS_OK;
}

HBA_STATUS mirvak_SendReadCapacity(HBA_HANDLE handle, HBA_WWN port_wwn, HBA_UINT64, void*, HBA_UINT32, void*,
                                   HBA_UINT32) {
    const mv::EntryLock entry_lock;
    unsigned char cdb[16] = {0x9E, 0x10};
    put_be32(&cdb[10], kCapacityTransfer);

    // The first LUN behind the port is asked, whatever FCP LUN the caller
    // gives, and the answer stays in private buffers: the caller's response
    // and sense buffers are left as they were. Agents only look at the
    // status.
    Descriptor dev;
    if (HBA_STATUS s = open_first_lun(handle, port_wwn, dev)) return s;
    unsigned char data[kCapacityTransfer] = {};
    unsigned char sense[kCapacityTransfer] = {};
    sg_io_hdr_t io = request(cdb, sizeof cdb, sizeof sense, kCapacityTransfer, data, sense, kTimeoutMs);
    if (ioctl(dev.fd, SG_IO, &io) < 0) {
        std::perror("sg_simple0: Inquiry SG_IO ioctl error");
        return HBA_STATUS_ERROR;
    }
    return HBA_STATUS_OK;
}

}  // extern "C"
