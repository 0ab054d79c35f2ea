/* Reference client for the benchmarks: the agent's two requests (GET of the
 * onboarding data, PUT of the status) with the same libcurl options and
 * header lines, and nothing else, so the agent's cost can be set against the
 * cost of the transfers alone.
 *
 * usage: ref_min URL CAFILE APIKEY OPERATORID SN COUNTRY SNETDESC OPDESC
 *
 * With REF_HOLD set in the environment it prints its result and then waits
 * for the end of its standard input before it exits, so that its memory can
 * be read at the point where it would exit.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <curl/curl.h>

static size_t discard(char *ptr, size_t size, size_t nmemb, void *userdata)
{
    (void)ptr;
    (void)userdata;
    return size * nmemb;
}

static struct curl_slist *add(struct curl_slist *list, const char *fmt, const char *value)
{
    char line[256];
    snprintf(line, sizeof(line) - 1, fmt, value);
    struct curl_slist *head = curl_slist_append(list, line);
    return head != NULL ? head : list;
}

static void ports(CURL *h)
{
    curl_easy_setopt(h, CURLOPT_LOCALPORT, 47777L);
    curl_easy_setopt(h, CURLOPT_LOCALPORTRANGE, 3L);
}

/* Sends the request and releases it; the status code, or -1. */
static long perform(CURL *h, struct curl_slist *hd)
{
    curl_easy_setopt(h, CURLOPT_HTTPHEADER, hd);
    long code = -1;
    if (curl_easy_perform(h) == CURLE_OK) {
        curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &code);
    }
    curl_slist_free_all(hd);
    curl_easy_cleanup(h);
    return code;
}

static long get(const char *const *a)
{
    CURL *h = curl_easy_init();
    if (h == NULL) {
        return -1;
    }
    struct curl_slist *hd = NULL;
    hd = curl_slist_append(hd, "Content-Type: Application/json");
    hd = curl_slist_append(hd, "Content-Length:0");
    hd = add(hd, "x-api-key:%s", a[3]);
    hd = add(hd, "operatorid:%s", a[4]);
    hd = add(hd, "sn:%s", a[5]);
    hd = add(hd, "country:%s", a[6]);
    curl_easy_setopt(h, CURLOPT_URL, a[1]);
    ports(h);
    curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, discard);
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, discard);
    curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(h, CURLOPT_CAINFO, a[2]);
    return perform(h, hd);
}

/* The status upload as the agent makes it: verbose trace on, peer check off
 * and no CA file of its own when the device's CA file exists. */
static long put(const char *const *a)
{
    CURL *h = curl_easy_init();
    if (h == NULL) {
        return -1;
    }
    char url[512];
    snprintf(url, sizeof(url), "%s?status=SUCCESS", a[1]);
    curl_easy_setopt(h, CURLOPT_VERBOSE, 1L);
    curl_easy_setopt(h, CURLOPT_URL, url);
    ports(h);
    curl_easy_setopt(h, CURLOPT_UPLOAD, 0L);
    curl_easy_setopt(h, CURLOPT_TRANSFER_ENCODING, 0L);
    curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, "PUT");
    curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 0L);
    struct curl_slist *hd = NULL;
    hd = curl_slist_append(hd, "Content-Type: Application/json");
    hd = curl_slist_append(hd, "Content-Length: 0");
    hd = add(hd, "x-api-key: %s", a[3]);
    hd = add(hd, "operatorid: %s", a[4]);
    hd = add(hd, "sn: %s", a[5]);
    hd = add(hd, "country: %s", a[6]);
    hd = add(hd, "snetdesc: %s", a[7]);
    hd = add(hd, "opdesc: %s", a[8]);
    return perform(h, hd);
}

int main(int argc, char **argv)
{
    if (argc != 9) {
        fprintf(stderr, "usage: ref_min URL CAFILE APIKEY OPERATORID SN COUNTRY SNETDESC OPDESC\n");
        return 2;
    }
    const char *const *a = (const char *const *)argv;
    long g = get(a);
    long p = put(a);
    printf("GET %ld PUT %ld\n", g, p);
    if (getenv("REF_HOLD") != NULL) {
        fflush(stdout);
        char c;
        while (read(0, &c, 1) > 0) {
        }
    }
    return g == 200 && p == 200 ? 0 : 1;
}
