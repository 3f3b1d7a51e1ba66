# shellcheck shell=bash
# The options of script/appliance. Read twice: by the caller's side, to refuse nonsense early, and
# by process 1.

# shellcheck disable=SC2034 # read by the scripts that source this file
parse_options() {
  STAGE='' STATE='' NAME=appliance ADDRESS=192.168.77.1/24 JOIN='' READY_FD='' WEB='' CLOUD='' \
    SANITIZER_LOGS=''
  WITH_DAEMONS=all DAEMONS=() WITHOUT=() BINDS=() BINDS_RW=() EXTRA_ENV=() COMMAND=()
  while (($#)); do
    case $1 in
      --no-daemons)     WITH_DAEMONS=none; shift; continue ;;
      --web)            WEB=1; shift; continue ;;
      --sanitizer-logs) SANITIZER_LOGS=1; shift; continue ;;
      --help)           usage; exit 0 ;;
      --)               shift; COMMAND=("$@"); break ;;
    esac
    (($# > 1)) || die "$1 is unknown, or lacks its value (see --help)"
    case $1 in
      --stage)    STAGE=$(folder "$2") ;;
      --state)    STATE=$(mkdir -p -- "$2" && folder "$2") ;;
      --bind)     BINDS+=("$(folder "$2")") ;;
      --bind-rw)  BINDS_RW+=("$(folder "$2")") ;;
      --env)      EXTRA_ENV+=("$2") ;;
      --cloud)    CLOUD=$(folder "$2") ;;
      --daemon)   WITH_DAEMONS=named; DAEMONS+=("$2") ;;
      --without)  WITHOUT+=("$2") ;;
      --name)     NAME=$2 ;;
      --address)  ADDRESS=$2 ;;
      --join)     JOIN=$2 ;;
      --ready-fd) READY_FD=$2 ;;
      *) die "$1 is unknown (see --help)" ;;
    esac
    shift 2
  done
  [[ $STAGE ]] || die "--stage FOLDER is needed (see --help)"
  [[ -d $STAGE/usr ]] || die "$STAGE is no installed tree: it has no usr"
  [[ $NAME =~ ^[a-z][a-z0-9-]{0,8}$ ]] || die "the name must be a short host name: $NAME"
  ((${#COMMAND[@]})) || die "no command after -- (see --help)"
}

folder() { (cd -- "$1" 2>/dev/null && pwd -P) || die "no such folder: $1"; }
