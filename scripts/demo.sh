#!/usr/bin/env bash
# The main job, from a fresh Debian 12 machine: set-up, the build, then the hosts service at work
# against the bundled sample GitHub, GitLab and Bitbucket. A private session bus (never the user's
# own) activates the service binary just built on the first call; vthosts asks it for the profile,
# the repositories, the SSH keys, the open pull requests and one pull request's conversation, and
# adds a comment; on GitLab the token it starts with is about to expire, on Bitbucket it has
# expired, and either is renewed on the way and kept.
# Everything it starts is ended on exit, Ctrl-C included.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"

bash scripts/setup.sh
echo "== building the service, vthosts and the sample hosts (build/)"
# Only what the demonstration runs; scripts/test.sh builds the test suites. The OAuth clients
# below are the sample GitLab's and the sample Bitbucket's public demonstration clients, not real
# ones: the build writes them beside the service, which sends them when it renews a token.
VT_BUILD_TARGETS="veldtrack-hosts-service vthosts vt-sample-hosts" bash scripts/build.sh build \
    -DVELDTRACK_GITLAB_CLIENT_ID=veldtrack-demo-gitlab-client \
    -DVELDTRACK_GITLAB_CLIENT_SECRET=veldtrack-demo-gitlab-secret \
    -DVELDTRACK_BITBUCKET_CLIENT_ID=veldtrack-demo-bitbucket-client \
    -DVELDTRACK_BITBUCKET_CLIENT_SECRET=veldtrack-demo-bitbucket-secret

build="$root/build"
vthosts="$build/tools/vthosts/vthosts"
work=$(mktemp -d)
sample_pid=""
daemon_pid=""
bus_address="unix:path=$work/bus"
service_name=com.veldtrack.Veldtrack.HostsService

# Waits up to five seconds for process $1 to end.
wait_gone() {
    for _ in $(seq 50); do
        kill -0 "$1" 2>/dev/null || return 0
        sleep 0.1
    done
    return 1
}

cleanup() {
    local status=$?
    trap - EXIT INT TERM
    if [ -n "$daemon_pid" ]; then
        # The service is the daemon's grandchild: ask the bus who owns the name.
        local service_pid
        service_pid=$(dbus-send --address="$bus_address" --print-reply --dest=org.freedesktop.DBus \
            /org/freedesktop/DBus org.freedesktop.DBus.GetConnectionUnixProcessID \
            "string:$service_name" 2>/dev/null | awk '/uint32/ {print $2}') || true
        if [ -n "$service_pid" ]; then
            kill -TERM "$service_pid" 2>/dev/null || true
            wait_gone "$service_pid" || kill -KILL "$service_pid" 2>/dev/null || true
        fi
        kill -TERM "$daemon_pid" 2>/dev/null || true
        wait "$daemon_pid" 2>/dev/null || true
    fi
    if [ -n "$sample_pid" ]; then
        kill -TERM "$sample_pid" 2>/dev/null || true
        wait "$sample_pid" 2>/dev/null || true
    fi
    rm -rf "$work"
    exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# Waits up to ten seconds for file $1 to hold a line matching $2.
wait_for_line() {
    for _ in $(seq 100); do
        grep -q "$2" "$1" 2>/dev/null && return 0
        sleep 0.1
    done
    echo "demo: gave up waiting for $1" >&2
    cat "$1" >&2 || true
    return 1
}

echo "== starting the sample hosts"
# The sample GitLab writes the OAuth token the demonstration starts with (mode 0600).
gitlab_token="$work/gitlab-token.json"
"$build/tools/samplehosts/vt-sample-hosts" --gitlab-token-file "$gitlab_token" \
    >"$work/sample.out" 2>&1 &
sample_pid=$!
wait_for_line "$work/sample.out" '^VELDTRACK_CONNECT_TO='
sed 's/^/  /' "$work/sample.out"
connect_to=$(sed -n 's/^VELDTRACK_CONNECT_TO=//p' "$work/sample.out")
fork_number=$(sed -n 's/^Repository with .*from a fork #\([0-9]*\).*/\1/p' "$work/sample.out")
gitlab_fork_number=$(sed -n 's/.*from a fork !\([0-9]*\).*/\1/p' "$work/sample.out")

echo "== starting a private session bus that activates build/src/service/veldtrack-hosts-service"
cat >"$work/bus.conf" <<EOF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>$bus_address</listen>
  <auth>EXTERNAL</auth>
  <servicedir>$build/dbus-1/services</servicedir>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
EOF
# From here on every client, and the service the daemon starts, uses this bus. The daemon's
# environment is the activation environment: it routes the samples' host names to the sample hosts.
export DBUS_SESSION_BUS_ADDRESS="$bus_address"
VELDTRACK_CONNECT_TO="$connect_to" dbus-daemon --config-file="$work/bus.conf" --nofork \
    --print-address=1 >"$work/bus.out" 2>"$work/daemon.log" &
daemon_pid=$!
wait_for_line "$work/bus.out" '^unix:'
echo "  $bus_address (VELDTRACK_CONNECT_TO=$connect_to for the services it starts)"

# The sample's public demo token, handed over in the environment (never on a command line).
export VELDTRACK_TOKEN=sample-github-demo-token
site=http://github.test
repository=http://github.test/openkiln/kiln
render() { node "$root/scripts/demo-render.js" "$@"; }
ask() { "$vthosts" "$@" --compact; }

echo
echo "== profile:  vthosts profile --url $site --host github"
ask profile --url "$site" --host github | render profile
echo
echo "== repositories:  vthosts repositories --url $site --host github"
ask repositories --url "$site" --host github | render repositories
echo
echo "== SSH keys:  vthosts ssh-keys --url $site --host github"
ask ssh-keys --url "$site" --host github | render ssh-keys
echo
echo "== open pull requests:  vthosts pull-requests $repository --host github"
ask pull-requests "$repository" --host github >"$work/pull-requests.json"
render pull-requests <"$work/pull-requests.json"
echo
echo "== conversation of #$fork_number:  vthosts conversation --pull-request FILE"
render pick "$fork_number" <"$work/pull-requests.json" >"$work/pull-request.json"
ask conversation --pull-request "$work/pull-request.json" >"$work/conversation.json"
render conversation <"$work/conversation.json"
# Actions take the record as the conversation left it: it now carries the pull request's id.
render record <"$work/conversation.json" >"$work/pull-request.json"
echo
echo "== a comment:  vthosts comment --pull-request FILE --message TEXT, then the conversation's end"
ask comment --pull-request "$work/pull-request.json" \
    --message "Tried it on the sample tiles: works for me." >/dev/null
ask conversation --pull-request "$work/pull-request.json" | render conversation | tail -n 4

# ---- GitLab
gitlab_site=http://gitlab.test
gitlab_project=http://gitlab.test/tidewater/tideline
# Every GitLab call reads the OAuth token from its file and, when the host renews it, writes the
# new one back there (the old refresh token stops working once it has been used). Calls about a
# merge request take its record, which names the host; the others take --host gitlab.
gitlab() {
    env -u VELDTRACK_TOKEN "$vthosts" "$@" --token-file "$gitlab_token" \
        --save-token "$gitlab_token" --compact
}
echo
echo "== GitLab: the OAuth token the demonstration starts with (written by the sample GitLab)"
cp "$gitlab_token" "$work/gitlab-token.before"
render token <"$gitlab_token"
echo
echo "== GitLab profile:  vthosts profile --url $gitlab_site --host gitlab --token-file FILE --save-token FILE"
gitlab profile --url "$gitlab_site" --host gitlab >"$work/gitlab-profile.json"
render profile <"$work/gitlab-profile.json"
render renewed "$work/gitlab-token.before" "$gitlab_token" <"$work/gitlab-profile.json"
echo "  the token the demonstration started with, once more (its refresh token was spent):"
env -u VELDTRACK_TOKEN "$vthosts" profile --url "$gitlab_site" --host gitlab \
    --token-file "$work/gitlab-token.before" --compact 2>/dev/null | render profile || true
echo
echo "== GitLab repositories:  vthosts repositories --url $gitlab_site --host gitlab"
gitlab repositories --url "$gitlab_site" --host gitlab | render repositories
echo
echo "== GitLab SSH keys:  vthosts ssh-keys --url $gitlab_site --host gitlab"
gitlab ssh-keys --url "$gitlab_site" --host gitlab | render ssh-keys
echo
echo "== GitLab open merge requests:  vthosts pull-requests $gitlab_project --host gitlab"
gitlab pull-requests "$gitlab_project" --host gitlab >"$work/merge-requests.json"
render pull-requests 6 <"$work/merge-requests.json"
echo
echo "== conversation of !$gitlab_fork_number:  vthosts conversation --pull-request FILE"
render pick "$gitlab_fork_number" <"$work/merge-requests.json" >"$work/merge-request.json"
gitlab conversation --pull-request "$work/merge-request.json" >"$work/gitlab-conversation.json"
render conversation 10 <"$work/gitlab-conversation.json"
render record <"$work/gitlab-conversation.json" >"$work/merge-request.json"
echo
echo "== a comment and a reply in the first thread:  vthosts comment ... / vthosts reply --to ID ..."
gitlab comment --pull-request "$work/merge-request.json" \
    --message "Checked the forecasts for Brest against this branch: they match." >/dev/null
thread=$(render thread <"$work/gitlab-conversation.json")
gitlab reply --pull-request "$work/merge-request.json" --to "$thread" \
    --message "Done, thanks." >/dev/null
gitlab conversation --pull-request "$work/merge-request.json" >"$work/gitlab-conversation.json"
render show-thread "$thread" <"$work/gitlab-conversation.json"
render conversation <"$work/gitlab-conversation.json" | tail -n 4

# ---- Bitbucket: the same requests with --host bitbucket. The token starts out as an access token
# that has expired and the refresh token that renews it (public demo values); the first request
# renews it on the way and vthosts keeps the renewed token in the token file (--save-token).
bitbucket_site=http://bitbucket.test
bitbucket_repository=http://bitbucket.test/tidewater/tilestream
bitbucket_fork=$(sed -n 's/^Bitbucket repository with .*from a fork #\([0-9]*\).*/\1/p' "$work/sample.out")
bitbucket_token="$work/bitbucket-token.json"
(
    umask 077
    printf '%s\n' '{"token_type": "Bearer", "access_token": "sample-bitbucket-expired-token",' \
        ' "refresh_token": "sample-bitbucket-refresh-token"}' >"$bitbucket_token"
    cp "$bitbucket_token" "$work/bitbucket-token.first"
)
# Calls about a pull request take its record, which names the host; the others take --host
# bitbucket.
bitbucket() {
    env -u VELDTRACK_TOKEN "$vthosts" "$@" --token-file "$bitbucket_token" \
        --save-token "$bitbucket_token" --compact
}

echo
echo "== Bitbucket profile, with an expired token:  vthosts profile --url $bitbucket_site --host bitbucket --token-file FILE --save-token FILE"
bitbucket profile --url "$bitbucket_site" --host bitbucket | render profile
render token-change "$work/bitbucket-token.first" <"$bitbucket_token"
echo
echo "== Bitbucket repositories:  vthosts repositories --url $bitbucket_site --host bitbucket"
bitbucket repositories --url "$bitbucket_site" --host bitbucket | render repositories
echo
echo "== Bitbucket SSH keys:  vthosts ssh-keys --url $bitbucket_site --host bitbucket"
bitbucket ssh-keys --url "$bitbucket_site" --host bitbucket | render ssh-keys
echo
echo "== Bitbucket open pull requests:  vthosts pull-requests $bitbucket_repository --host bitbucket"
bitbucket pull-requests "$bitbucket_repository" --host bitbucket >"$work/bitbucket-pull-requests.json"
render pull-requests <"$work/bitbucket-pull-requests.json"
echo
echo "== Bitbucket conversation of #$bitbucket_fork (threads, a deleted comment that has answers):  vthosts conversation --pull-request FILE"
render pick "$bitbucket_fork" <"$work/bitbucket-pull-requests.json" >"$work/bitbucket-pull-request.json"
bitbucket conversation --pull-request "$work/bitbucket-pull-request.json" \
    >"$work/bitbucket-conversation.json"
render conversation <"$work/bitbucket-conversation.json"
render record <"$work/bitbucket-conversation.json" >"$work/bitbucket-pull-request.json"
echo
echo "== a Bitbucket comment:  vthosts comment --pull-request FILE --message TEXT, then the conversation's end"
bitbucket comment --pull-request "$work/bitbucket-pull-request.json" \
    --message "Checked the tiles at z0: the bounding box is right now." >/dev/null
bitbucket conversation --pull-request "$work/bitbucket-pull-request.json" |
    render conversation | tail -n 4
echo
echo "demo: done"
