# Shared helpers of the build scripts; sourced, not run.

# Installs the given Debian packages that are missing when running as root; otherwise names them
# and fails, so that a developer without root knows exactly what to install.
utl_require_packages() {
    local missing=()
    local pkg
    for pkg in "$@"; do
        if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed'; then
            missing+=("$pkg")
        fi
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    if [ "$(id -u)" -eq 0 ]; then
        echo "== Installing missing packages: ${missing[*]}"
        export DEBIAN_FRONTEND=noninteractive
        apt-get update -qq && apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
    else
        echo "Missing Debian packages: ${missing[*]}" >&2
        echo "Install them with: sudo apt-get install ${missing[*]}" >&2
        return 1
    fi
}

utl_jobs() { nproc 2>/dev/null || echo 2; }
