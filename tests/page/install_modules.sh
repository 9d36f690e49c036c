#!/usr/bin/env bash
# Installs what the page's tests drive the browser with into a folder of the build, once.
#
#   tests/page/install_modules.sh FOLDER
set -euo pipefail
if [ $# -ne 1 ]; then
    sed -n '2,4s/^# \{0,1\}//p' "$0" >&2
    exit 2
fi
source=$(cd "$(dirname "$0")" && pwd)
mkdir -p "$1"
cd "$1"
if cmp -s "$source/package-lock.json" installed.json; then
    exit 0
fi
rm -f installed.json
cp "$source"/{package.json,package-lock.json,.npmrc} .
# Node brings certificates of its own; the system's are also those that its administrator trusts.
system_certificates=/etc/ssl/certs/ca-certificates.crt
if [ -z "${NODE_EXTRA_CA_CERTS:-}" ] && [ -r "$system_certificates" ]; then
    export NODE_EXTRA_CA_CERTS=$system_certificates
fi
npm ci --no-progress
cp package-lock.json installed.json
