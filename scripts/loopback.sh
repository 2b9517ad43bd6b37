# Sourced by the scripts that run a controller on loopback: free ports, a configuration, start and stop.
# They set `dir` (working folder, absolute) first, and `common_options` if the domains' settings shall not be
# the default ones.

say() { printf '\n== %s\n' "$*"; }
die() { printf '%s: %s\n' "${0##*/}" "$*" >&2; exit 1; }

port_is_free() { ! (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# Three neighbouring ports that nobody listens on: ap_port, api_port, cli_port.
choose_ports() {
  local base
  for base in $(seq 18080 10 18980); do
    if port_is_free "$base" && port_is_free $((base + 1)) && port_is_free $((base + 2)); then
      ap_port=$base api_port=$((base + 1)) cli_port=$((base + 2))
      return
    fi
  done
  die "no free ports between 18080 and 18990"
}

# write_configuration DOMAIN...: all domains with the common settings, all paths in the working folder.
write_configuration() {
  local domain domains=
  for domain in "$@"; do
    domains+="${domains:+,}"$'\n'"    {\"domain\": \"$domain\", \"pattern\": \"common\", \"time_zone\": \"1:00\"}"
  done
  mkdir -p "$dir/reports" "$dir/backup" "$dir/www"
  cat >"$dir/wavelom.conf" <<EOF
{
  "version": "2.1",
  "global": {
    "enabled": 1,
    "listen_port": $ap_port,
    "api_port": $api_port,
    "cli_api_port": $cli_port,
    "reports_path": "$dir/reports",
    "www_path": "$dir/www",
    "vrrp_enabled": 0,
    "vrrp_backup_path": "$dir/backup",
    "vrrp_state_file": "$dir/keep.mode"
  },
  "common": {${common_options:-}},
  "domains": [$domains
  ],
  "patterns": []
}
EOF
}

controller=

# start_controller LOG: waits until it listens.
start_controller() {
  local log=$1 tenth
  # In a session of its own, so that Ctrl-C reaches the fleet first and the controller through a trap.
  setsid build/release/server/wavelom "$dir/wavelom.conf" >"$log" 2>&1 </dev/null &
  controller=$!
  trap 'stop_controller || true' EXIT
  trap 'exit 130' INT TERM
  for tenth in $(seq 150); do
    port_is_free "$ap_port" || return 0
    kill -0 "$controller" 2>/dev/null || break
    sleep 0.1
  done
  [ ! -f "$log" ] || tail -20 "$log" >&2
  die "the controller does not listen on port $ap_port; its log: $log"
}

# SIGINT is how the controller is told to end; it stops all its workers. Returns its status.
stop_controller() {
  [ -n "$controller" ] || return 0
  local tenth status=0
  kill -INT "$controller" 2>/dev/null || true
  for tenth in $(seq 300); do
    kill -0 "$controller" 2>/dev/null || break
    if [ "$tenth" -eq 300 ]; then
      echo "${0##*/}: the controller does not end; killing it" >&2
      kill -KILL "$controller"
    fi
    sleep 0.1
  done
  wait "$controller" 2>/dev/null || status=$?
  controller=
  return "$status"
}

fleet_status=0

# run_fleet OUTPUT OPTION...: runs it in the foreground; Ctrl-C ends it with its figures, the script goes on.
run_fleet() {
  local output=$1 fleet interrupted=
  shift
  build/release/tools/fleet/wavelom-fleet --port "$ap_port" "$@" >"$output" &
  fleet=$!
  trap 'interrupted=1; kill -INT "$fleet" 2>/dev/null || true' INT TERM
  fleet_status=0
  wait "$fleet" || fleet_status=$?
  if [ -n "$interrupted" ]; then
    wait "$fleet" 2>/dev/null || true
    fleet_status=0
  fi
  trap 'exit 130' INT TERM
}
