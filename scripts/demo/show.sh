# shellcheck shell=bash
# Shows a run of the updater and checks it against what was announced. Sourced by scenes.sh, which
# sets `program`, `scratch` and `install`.

scenes=0          # how many were announced
status=           # exit status of the last run
log_lines=()      # what the last run added to the update log
previous_agent=   # process id of the agent before the last run

scene() {
  scenes=$((scenes + 1))
  printf '\n%s%d.%s ' "$bold" "$scenes" "$plain"
  printf '%s\n' "$*" | fold -s -w 90 | sed 's/ *$//; 2,$s/^/   /'
}

# Prints the lines of its input with a label before the first one.
block() {
  local label=$1 line
  while IFS= read -r line; do
    printf '   %-7s %s\n' "$label" "$line"
    label=
  done
}

# Runs the updater.
# $1: the function that prints the state worth seeing; then the updater's arguments
run() {
  local state=$1 log=$install/runlog/update.log old_length
  shift
  old_length=$(wc -l <"$log")
  previous_agent=$(agent_pid)
  "$state" | block before
  printf 'norvak_update %s\n' "$*" | block run
  status=0
  "$program" "$@" >"$scratch/printed" 2>&1 || status=$?
  if [[ $(agent_pid) != "$previous_agent" ]]; then
    wait_until process_is_gone "$previous_agent"
  fi
  mapfile -t log_lines < <(tail -n "+$((old_length + 1))" "$log")
  log_rows | block log
  "$state" | block after
  block exit <<<"$status"
  expect 'printed text' '' "$(<"$scratch/printed")"
  expect 'files left behind' '' "$(cd "$install" && compgen -G 'update*')"
}

# A bar before each line makes the empty one that ends a run visible.
log_rows() {
  if ((${#log_lines[@]} == 0)); then
    printf '(nothing)\n'
  else
    printf '| %s\n' "${log_lines[@]}" | sed 's/ $//'
  fi
}

# Tries a command until it succeeds, for five seconds at most.
wait_until() {
  local tries
  for ((tries = 0; tries < 100; ++tries)); do
    if "$@"; then
      return 0
    fi
    sleep 0.05
  done
  return 1
}

# $1: what is looked at; $2: what it should be; $3: what it is
expect() {
  if [[ $2 != "$3" ]]; then
    fail "scene $scenes is not as announced: $1: expected '$2', found '$3'"
  fi
}

expect_status() {
  expect 'exit status' "$1" "$status"
}

# $@: the texts of the log lines, without their time stamps; '' is the line that closes a run
expect_log() {
  local stamp=$'^\[[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\]\t\t' line texts=()
  for line in "${log_lines[@]}"; do
    if [[ $line =~ $stamp ]]; then
      line=${line#"${BASH_REMATCH[0]}"}
    elif [[ -n $line ]]; then
      line="(no time stamp) $line"
    fi
    texts+=("$line")
  done
  expect 'update log' "$(printf '%s|' "$@")" "$(printf '%s|' "${texts[@]}")"
}

expect_setting() {
  expect "setting $1" "$2" "$(setting "$1")"
}

expect_same_file() {
  if ! cmp -s "$1" "$2"; then
    fail "scene $scenes is not as announced: $1 differs from $2"
  fi
}

expect_missing() {
  if [[ -e $1 ]]; then
    fail "scene $scenes is not as announced: $1 is still there"
  fi
}

# $1: restarted, untouched or killed
expect_agent() {
  local pid fate
  pid=$(agent_pid)
  if [[ -z $pid ]] && process_is_gone "$previous_agent"; then
    fate=killed
  elif [[ -z $pid ]] || process_is_gone "$pid"; then
    fate='in disorder'
  elif [[ $pid == "$previous_agent" ]]; then
    fate=untouched
  elif process_is_gone "$previous_agent"; then
    fate=restarted
  else
    fate='running twice'
  fi
  expect 'the agent' "$1" "$fate"
}

# The states that the kinds of update change.

soft_state() {
  printf 'version "%s", update_type "%s"\n' "$(setting version)" "$(setting update_type)"
  agent_row
  file_row norvak_agent
}

kernel_state() {
  local module
  for module in "${kernel_modules[@]}"; do
    file_row "$module.ko"
  done
}

web_server_state() {
  file_row nginx/bin/nginx
  printf 'nginx/md5: %s\n' "$(<"$install/nginx/md5")"
}

rule_state() {
  agent_row
  file_row template/norvak_default_rule.xml
  printf 'template/system_rule.dat: %s\n' "$(<"$install/template/system_rule.dat")"
}

agent_row() {
  local pid
  pid=$(agent_pid)
  if [[ -n $pid ]] && ! process_is_gone "$pid"; then
    printf 'agent is process %s\n' "$pid"
  else
    printf 'agent is not running\n'
  fi
}

# $1: a file under the install directory; shown with its mode and digest
file_row() {
  if [[ -e $install/$1 ]]; then
    printf '%s  %s  %s\n' "$(stat -c %A "$install/$1")" "$(md5_text <"$install/$1")" "$1"
  else
    printf '(missing)   %32s  %s\n' '' "$1"
  fi
}
