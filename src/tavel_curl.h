/* Onboarding-server client: the HTTPS GET of the onboarding data, the reader
 * of its reply headers, and the HTTPS PUT of the status report. */
#ifndef TAVEL_CURL_H
#define TAVEL_CURL_H

#include <curl/curl.h>
#include <stddef.h>

#include "main.h"

/* Reply body collected for the debug log; data is always terminated. */
typedef struct PollRespBuffer {
    char *data;
    size_t size;
} PollRespBuffer;

/* Reply header types, in the order names are matched. */
enum HeaderType {
    HDR_NONE = 0,
    HDR_URL = 1,
    HDR_NAME = 2,
    HDR_PWD = 3,
    HDR_OPDESC = 4,
    HDR_SNETDESC = 5,
    HDR_TENANTID = 6,
    HDR_TIMEZONE = 7,
    HDR_COUNTRYCODE = 8,
    HDR_L1URL = 9,
    HDR_L2URL = 10,
    HDR_REMOTEMAPPURL = 11,
    HDR_KPRCONFIGURL = 12,
    HDR_KPRCONFIGAPIKEY = 13
};

int httpGetUrlFromServer(HttpInfo *info, const char *body);
int httpPutToServer(HttpInfo *info);
int get_https_cacert_file_status(const char *path);
size_t pollRespWriteCallback(const char *ptr, size_t size, size_t nmemb, PollRespBuffer *buf);
int curlSockOptCallback(void *clientp, curl_socket_t fd, curlsocktype purpose);

size_t header_handler(char *line, size_t size, size_t nmemb, void *userdata);
/* 1 when the header being handled is within its reply's trace budget (and
 * always outside a transfer); the time-zone parser logs only then. */
int tavel_headerTraced(void);
int getHeaderType(const char *line);
void setServerDataFromHeader(int type, const char *line, size_t n);

#endif
