# shellcheck shell=bash
# Runs the updater, shows what happened and checks it. Sourced by scenes.sh.

scenes=0          # how many there were
summary=()        # a line for each
title=            # of the current scene
status=           # exit status of the last run
requests=()       # what the last run requested
log_lines=()      # what the last run added to the update log
previous_agent=   # process id of the agent before the last run

# Prints its arguments as one paragraph.
paragraph() {
  printf '%s\n' "$*" | fold -s -w 96 | sed 's/ *$//'
}

# $1: title; the rest: what is special about this run
scene() {
  scenes=$((scenes + 1))
  title=$1
  shift
  printf '\n%s%d. %s%s\n' "$bold" "$scenes" "$title" "$plain"
  if (($#)); then
    paragraph "$@" | sed 's/^/   /'
  fi
}

# Prints the lines of its input, with a label before the first one.
labelled() {
  local label=$1 line
  while IFS= read -r line; do
    printf '   %-9s %s\n' "$label" "$line"
    label=
  done
}

# Runs the updater.
# $1: the function that prints the state to show; then the updater's arguments
run() {
  local state=$1 log=$install/runlog/update.log old_length before after
  shift
  old_length=$(wc -l <"$log")
  previous_agent=$(agent_pid)
  forget_requests
  mapfile -t before < <("$state")
  printf 'norvak_update %s\n' "$*" | labelled command
  status=0
  "$updater" "$@" >"$scratch/printed" 2>&1 || status=$?
  if [[ $(agent_pid) != "$previous_agent" ]]; then
    wait_until process_is_gone "$previous_agent"
  fi
  mapfile -t requests < <(new_requests)
  mapfile -t log_lines < <(tail -n "+$((old_length + 1))" "$log")
  mapfile -t after < <("$state")
  printf '%s\n' "${requests[@]:-(none)}" | labelled requests
  log_texts | sed '$ {/^$/d}' | labelled log
  printf '%s\n' "$status" | labelled exit
  changes | labelled result
  summary+=("$(printf '%5d  %-33s %4d  %s' "$scenes" "norvak_update $*" "$status" "$title")")
  expect 'printed text' '' "$(<"$scratch/printed")"
  expect 'files left behind' '' "$(cd "$install" && compgen -G 'update*')"
}

# Runs norvak_host and shows what it prints.
# $@: its arguments
run_norvak_host() {
  printf 'norvak_host %s\n' "$*" | labelled command
  status=0
  "$programs/norvak_host" "$@" >"$scratch/printed" || status=$?
  printf '\n'
  sed 's/^\(.\)/   \1/' "$scratch/printed"
  printf '\n'
  printf '%s\n' "$status" | labelled exit
  summary+=("$(printf '%5d  %-33s %4d  %s' "$scenes" "norvak_host $*" "$status" "$title")")
}

# Shows something that the demo does after a run, in the place of an administrator.
# $1: the description; then the command
afterwards() {
  printf '%s\n' "$1" | labelled 'then'
  shift
  "$@"
}

# The states before and after a run, of which "before" and "after" have the same rows.
changes() {
  local i name old new
  for i in "${!after[@]}"; do
    IFS='|' read -r name new <<<"${after[i]}"
    old=${before[i]#*|}
    if [[ $old != "$new" ]]; then
      new="$old -> $new"
    fi
    printf '%-32s %s\n' "$name" "$new"
  done
}

# The lines that the last run logged, without their time stamps.
log_texts() {
  local stamp=$'^\[[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\]\t\t' line
  for line in "${log_lines[@]}"; do
    if [[ $line =~ $stamp ]]; then
      line=${line#"${BASH_REMATCH[0]}"}
    elif [[ -n $line ]]; then
      line="(no time stamp) $line"
    fi
    printf '%s\n' "$line"
  done
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

# $1: what is checked; $2: what it should be; $3: what it is
expect() {
  if [[ $2 != "$3" ]]; then
    fail "scene $scenes did not end as expected: $1: expected '$2', found '$3'"
  fi
}

expect_status() {
  expect 'exit status' "$1" "$status"
}

# $@: the requests
expect_requests() {
  expect 'requests' "$*" "${requests[*]}"
}

# $@: the texts of the log lines before the empty line that ends a run
expect_log() {
  expect 'update log' "$(printf '%s\n' "$@" '')" "$(log_texts)"
}

# $@: extended regular expressions of the beginnings of lines that norvak_host printed
expect_output() {
  local line
  for line in "$@"; do
    if ! grep -q -E "^$line" "$scratch/printed"; then
      fail "scene $scenes did not end as expected: no line begins with '$line'"
    fi
  done
}

expect_setting() {
  expect "setting $1" "$2" "$(setting "$1")"
}

expect_same_file() {
  if ! cmp -s "$1" "$2"; then
    fail "scene $scenes did not end as expected: $1 differs from $2"
  fi
}

expect_missing() {
  if [[ -e $1 ]]; then
    fail "scene $scenes did not end as expected: $1 still exists"
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

# The states that the kinds of update change: rows of name and value.

soft_state() {
  setting_row version
  setting_row update_type
  agent_row
  file_row norvak_agent "$server_package/norvak_agent"
}

kernel_state() {
  local module
  for module in "${kernel_modules[@]}"; do
    file_row "$module.ko" "$(published_module "$module")"
  done
}

web_server_state() {
  local mode=', not executable'
  if [[ -x $install/nginx/bin/nginx ]]; then
    mode=', executable'
  fi
  printf '%s%s\n' "$(file_row nginx/bin/nginx "$server_root/nginx_new/x64/1.24.0/nginx")" "$mode"
  printf 'nginx/md5|%s\n' "$(<"$install/nginx/md5")"
}

rule_state() {
  agent_row
  file_row template/norvak_default_rule.xml "$server_root/tarn_rule/norvak_default_rule.xml"
}

setting_row() {
  local value
  value=$(setting "$1")
  printf '%s|%s\n' "$1" "${value:-(empty)}"
}

agent_row() {
  local pid
  pid=$(agent_pid)
  if [[ -n $pid ]] && ! process_is_gone "$pid"; then
    printf 'agent|process %s\n' "$pid"
  else
    printf 'agent|not running\n'
  fi
}

# $1: a file in the install directory; $2: the same file on the server
file_row() {
  local value=old
  if [[ ! -e $install/$1 ]]; then
    value=missing
  elif cmp -s "$install/$1" "$2"; then
    value=new
  fi
  printf '%s|%s\n' "$1" "$value"
}
