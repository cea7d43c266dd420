#!/usr/bin/env bash
# Installs what the project needs on Debian 12 — only what is missing, so it is cheap to run again —
# and the GraphQL validator the schema tests use.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

packages=(
    cmake make g++ pkg-config clang clang-format libclang-rt-14-dev
    libcurl4-openssl-dev libboost-json1.81-dev libboost-url1.81-dev libicu-dev libssl-dev zlib1g-dev
    libsdbus-c++-dev libgtest-dev libgmock-dev libbenchmark-dev
    dbus-daemon openssh-client ca-certificates
)
missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
done
command -v node >/dev/null 2>&1 || missing+=(nodejs)
command -v npm >/dev/null 2>&1 || missing+=(npm)

if ((${#missing[@]} > 0)); then
    sudo=()
    [ "$(id -u)" -eq 0 ] || sudo=(sudo)
    echo "setup: installing ${missing[*]}"
    "${sudo[@]}" apt-get update -qq
    DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# The GraphQL validator (graphql-js from npm) checks every query text the adapters send against the
# hosts' published schemas in tests/schemas. It is installed into a cache folder of the checkout;
# without it those tests skip with a message.
tool="$root/.cache/graphql-validate"
if [ ! -d "$tool/node_modules/graphql" ] || ! cmp -s "$root/tools/graphql-validate/package.json" "$tool/package.json"; then
    mkdir -p "$tool"
    cp "$root/tools/graphql-validate/package.json" "$tool/"
    (cd "$tool" && npm install --no-audit --no-fund --loglevel=error >/dev/null) ||
        echo "setup: could not install the GraphQL validator; the schema tests will be skipped" >&2
fi
