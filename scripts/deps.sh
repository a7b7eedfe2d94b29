# Sourced by scripts/test, scripts/run and scripts/bench: installs the Debian packages the build needs,
# quietly and only when one is missing.
nyr_install_packages() {
    local missing=()
    local pkg
    for pkg in "$@"; do
        if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
            missing+=("$pkg")
        fi
    done
    if [ ${#missing[@]} -eq 0 ]; then
        return 0
    fi
    echo "Installing: ${missing[*]}"
    local sudo=""
    if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
    export DEBIAN_FRONTEND=noninteractive
    if ! $sudo apt-get install -y -qq "${missing[@]}" >/dev/null; then
        $sudo apt-get update -qq >/dev/null
        $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
    fi
}

# libsystemd-dev: the host's readiness, watchdog and socket activation under a service manager;
# prometheus: its promtool checks the host's /metrics in the tests.
NYR_BUILD_PACKAGES=(g++ cmake ninja-build nlohmann-json3-dev libgtest-dev libbenchmark-dev libboost-dev libssl-dev openssl curl
                    libsystemd-dev pkg-config prometheus)
# The console's browser tests: Debian's Chromium, driven by playwright-core from the npm registry.

nyr_install_browser_tests() {
    local root=$1
    if ! command -v node >/dev/null 2>&1; then
        nyr_install_packages nodejs npm
    fi
    nyr_install_packages chromium
    if [ ! -d "$root/tests/web/node_modules/playwright-core" ]; then
        (cd "$root/tests/web" && npm ci --no-audit --no-fund --loglevel=error >/dev/null)
    fi
    # The API contract's checks: an OpenAPI 3.1 and JSON Schema validator from the npm registry.
    if [ ! -d "$root/tests/contract/node_modules/@hyperjump/json-schema" ]; then
        (cd "$root/tests/contract" && npm ci --no-audit --no-fund --loglevel=error >/dev/null)
    fi
}
