#!/bin/sh
# Reference client for the benchmarks: the agent's GET and PUT made by the
# curl command-line tool, with the same header lines, CA file and local ports.
# REF_WRAP, when set, is put in front of each curl command (e.g. a profiler),
# so each transfer process can be measured on its own.
#
# usage: ref_curl.sh URL CAFILE APIKEY OPERATORID SN COUNTRY SNETDESC OPDESC
set -eu
[ $# -eq 8 ] || { echo "usage: $0 URL CAFILE APIKEY OPERATORID SN COUNTRY SNETDESC OPDESC" >&2; exit 2; }
url=$1 ca=$2 key=$3 op=$4 sn=$5 country=$6 snet=$7 opdesc=$8
# shellcheck disable=SC2086
${REF_WRAP:-} curl -sS -o /dev/null --local-port 47777-47779 --cacert "$ca" \
    -H "Content-Type: Application/json" -H "Content-Length:0" \
    -H "x-api-key:$key" -H "operatorid:$op" -H "sn:$sn" -H "country:$country" \
    "$url"
# shellcheck disable=SC2086
${REF_WRAP:-} curl -sS -o /dev/null --local-port 47777-47779 --cacert "$ca" -X PUT \
    -H "Content-Type: Application/json" -H "Content-Length: 0" \
    -H "x-api-key: $key" -H "operatorid: $op" -H "sn: $sn" -H "country: $country" \
    -H "snetdesc: $snet" -H "opdesc: $opdesc" \
    "$url?status=SUCCESS"
