/* Thin data-model accessors: work mode and role, and the five cloud settings.
 * The cloud accessors return 1 on success and 0 on failure. */
#ifndef TAVEL_EXTERNALINFT_H
#define TAVEL_EXTERNALINFT_H

#include <stddef.h>

int tavel_intf_getWorkMode(char mode[33]);
int tavel_intf_getWorkRole(char role[33]);

/* Getters copy the setting into buf (bufSize bytes, always terminated, a
 * longer stored value is cut); setters take a terminated text. */
int tavel_intf_getL1ClouldURL(char *buf, size_t bufSize);
int tavel_intf_setL1ClouldURL(const char *url);
int tavel_intf_getL2ClouldURL(char *buf, size_t bufSize);
int tavel_intf_setL2ClouldURL(const char *url);
int tavel_intf_getRMAPPURL(char *buf, size_t bufSize);
int tavel_intf_setRMAPPURL(const char *url);
int tavel_intf_getkprconfigUrl(char *buf, size_t bufSize);
int tavel_intf_setkprconfigUrl(const char *url);
int tavel_intf_getkprconfigApikey(char *buf, size_t bufSize);
int tavel_intf_setkprconfigApikey(const char *key);

#endif
