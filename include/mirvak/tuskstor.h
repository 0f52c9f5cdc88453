/*
 * The maker's driver library, libtuskstor.so, as this library calls it.
 *
 * Every operation returns 0 on success; any other value is the driver's own
 * status. Handles are 32-bit; 0xFFFFFFFF means no adapter answered.
 * The record layouts exchanged through the void* arguments are in
 * mirvak/driver_records.h.
 */
#ifndef MIRVAK_TUSKSTOR_H
#define MIRVAK_TUSKSTOR_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TUSK_INVALID_HANDLE 0xFFFFFFFFu

uint32_t open_adapter(uint32_t instance);
uint32_t open_adapter_str(const char* path);
int close_adapter(uint32_t handle);
int tusk_probe_adapter(uint32_t handle);
int tusk_get_hw_info(uint32_t handle, void* hw_info);
int tusk_get_lnode_info(uint32_t handle, void* lnode_info, uint64_t cursor);
int tusk_get_lnode_info_by_fcid(uint32_t handle, void* lnode_info, int how);
int tusk_get_rnode_info(uint32_t handle, void* rnode_info, uint32_t cursor, uint32_t lnode_id);
int tusk_get_fcf_info(uint32_t handle, void* fcf_info, uint32_t cursor);
int tusk_list_npiv_port(uint32_t handle, void* npiv_list, uint32_t size);
int tusk_create_npiv_port(uint32_t handle, void* npiv_req);
int tusk_delete_npiv_port(uint32_t handle, void* npiv_req);

#ifdef __cplusplus
}
#endif

#endif
