#!/bin/sh
# Takes one sample of the device's own power measurements. Called by the daemon every second minute
# of a session, in the background, one at a time:
#
#   power.sh DIRECTORY
#
# with the session's folder system_monitoring/monitoring_environment. For each power supply and each
# hardware monitor in /sys/class that measures voltages, currents or power it appends a row to
# NAME/devicepower.csv in it, in mV, mA and mW; and, where a device measures power, their sum to
# power.csv. The columns of a file are those that its device had at first; one that can't be read is
# left empty. While a device does not tell its power, power.csv has no row. Without anything measured,
# or without the directory, nothing is written.

# shellcheck source=package/common.sh
. "${0%/*}/common.sh"

[ -d "$1" ] || exit 0
mend_after_boot "$1"

directory=$1
stamp=
total=
powered= # the names of the devices that it is the sum of

# measure FILE DIVISOR: sets $value to what the file says, "" if it says nothing.
measure() {
    value=
    { read -r value <"$1"; } 2>/dev/null
    case $value in
    -[0-9]* | [0-9]*) ;;
    *) value= && return ;;
    esac
    sign=
    case $value in -*) sign=- ;; esac
    digits=${value#-}
    case $digits in
    *[!0-9]*) value= && return ;;
    esac
    digits=${digits#"${digits%%[!0]*}"} # a number that begins with 0 is octal
    value=$((${sign}${digits:-0} / $2))
}

# sensor COLUMN: sets $file and $divisor for a column of the device in $device.
sensor() {
    divisor=1
    case $1 in
    voltage_mV) file=$device/voltage_now divisor=1000 ;;
    current_mA) file=$device/current_now divisor=1000 ;;
    power_mW) file=$device/power_now divisor=1000 ;;
    power[0-9]*_mW) file=$device/${1%_mW}_input divisor=1000 ;;
    in[0-9]*_mV | curr[0-9]*_mA) file=$device/${1%_*}_input ;;
    *) file= ;;
    esac
}

# record NAME COLUMN...: a row of the device in $device.
record() {
    csv=$directory/$1/devicepower.csv
    folder=${csv%/*}
    shift
    [ $# -gt 0 ] || return
    header=DATE,TIME$(printf ',%s' "$@")
    if [ -s "$csv" ]; then
        IFS= read -r header <"$csv"
        IFS=,
        # shellcheck disable=SC2086 # split at the commas
        set -- ${header#DATE,TIME,}
        unset IFS
    fi
    [ -n "$stamp" ] || take_time_stamp
    row=$stamp
    measured=
    for column; do
        sensor "$column"
        measure "$file" "$divisor"
        row=$row,$value
        measured=$measured$value
        case $column$value in
        power*_mW?*)
            total=$((${total:-0} + value))
            powered="$powered ${folder##*/} "
            ;;
        esac
    done
    [ -n "$measured" ] || return
    [ -d "$folder" ] || mkdir "$folder" 2>/dev/null
    append_row "$csv" "$header" "$row"
}

# plain_name NAME: sets $name to a form of it that can be a folder's.
plain_name() {
    name=$1
    is_plain "$name" || name=$(printf '%s' "$name" | tr -c 'A-Za-z0-9._-' _ | sed 's/^[.-]/_/')
}

for device in /sys/class/power_supply/*; do
    [ -d "$device" ] || continue
    plain_name "${device##*/}"
    set --
    for column in voltage_mV current_mA power_mW; do
        sensor $column
        measure "$file" 1
        [ -n "$value" ] && set -- "$@" $column
    done
    record "$name" "$@"
done

used=
for device in /sys/class/hwmon/*; do
    # A power supply shows up here a second time.
    if ! [ -d "$device" ] || grep -q '^POWER_SUPPLY_NAME=' "$device/device/uevent" 2>/dev/null; then
        continue
    fi
    name=
    { read -r name <"$device/name"; } 2>/dev/null
    plain_name "${name:-${device##*/}}"
    case $used in
    *" $name "*) name=${name}_${device##*/} ;; # two of a kind
    esac
    used="$used $name "
    set --
    for file in "$device"/in*_input "$device"/curr*_input "$device"/power*_input; do
        measure "$file" 1
        column=${file##*/}
        column=${column%_input}
        case $column in
        in*) column=${column}_mV ;;
        curr*) column=${column}_mA ;;
        power*) column=${column}_mW ;;
        esac
        [ -n "$value" ] && set -- "$@" "$column"
    done
    record "$name" "$@"
done

# Without a device that was measured before, the sum would be another one's.
for csv in "$directory"/*/devicepower.csv; do
    name=${csv%/*}
    name=${name##*/}
    header=
    { read -r header <"$csv"; } 2>/dev/null
    case $header in
    *,power*_mW*)
        case $powered in
        *" $name "*) ;;
        *) total= ;;
        esac
        ;;
    esac
done

[ -z "$total" ] || append_row "$directory/power.csv" DATE,TIME,POWER_mW "$stamp,$total"
