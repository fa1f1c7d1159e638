// What can be done when the daemon refuses, by its words.

/** @type {[RegExp, string][]} */
const ADVICE = [
  [/another is running/, 'Someone else has started a session meanwhile. It goes on; stop it first to '
    + 'start another.'],
  [/storage destination was not valid/, 'The camera does not know this storage, or it is not mounted, '
    + 'is write-protected or needs repair. Look at it in the camera’s own storage settings, then try '
    + 'again, or choose another storage.'],
  [/Storage is required|No storage/i, 'Choose a storage.'],
  [/must be a plain decimal number/, 'Use a whole number of at most nine digits.'],
  [/No monitor session is activated/, 'The session has ended meanwhile: someone else has stopped it, '
    + 'or the daemon has because its storage was nearly full. The log tells which.'],
  [/active monitor session is null/, 'The daemon has lost track of the session’s storage. Restart the '
    + 'package on the camera: it takes the session over again.'],
  [/invalid session path|not a valid monitoring session/i, 'The session is not there: it was deleted, '
    + 'or its storage is gone. Bring the storage back and look again.'],
  [/delete the current active/, 'Stop the session first.'],
  [/being compressed|in the process of|in a few minutes/, 'An archive of the session is being made. '
    + 'Wait until that is done.'],
  [/Miss recording id/, 'The daemon takes neither a recording id that begins with “.” or “-” nor one '
    + 'that is too long for a path, and it must know the storage’s name.'],
  [/already been activated/, 'Someone else has started a trace meanwhile. It goes on; stop it first '
    + 'to start another.'],
  [/no active wireshark session/, 'The trace has ended meanwhile: someone else has stopped it, or the '
    + 'package was restarted.'],
  [/wireshark session info file/, 'The list of traces is not there. It is made when the package or a '
    + 'trace starts: start a trace, or restart the package on the camera.'],
  [/not removed \(not found\)/, 'Someone else has removed it meanwhile.'],
  [/can not be used|name and key are required/, 'Use a shorter text without control characters.'],
  [/Status unknown, no action/, 'Nothing is set any more: someone else has stopped it meanwhile.'],
  [/Too short interval/, 'Choose 3 minutes or more.'],
  [/argument not specified/, 'Give at least one time of day as 08:00.'],
  [/no address given/, 'Give a host name or an IP address, nothing else.'],
  [/could not open file/, 'The log program’s configuration can’t be written. The log tells which file.'],
  [/Address is too long/, 'The daemon takes 46 characters, fewer with a long port number. Use the '
    + 'host’s IP address.'],
  [/Not all required parameters/, 'Give a name of at most 47 bytes, the address of a host, a port from '
    + '1 to 65535 and an interval.'],
  [/Could not remove nc-rule/, 'The rule is not there any more: someone else has deleted it.'],
  [/Traceroute binary for architecture/, 'The package has no traceroute for this camera.'],
  [/storage must be the path of a session/, 'It is not there: it was deleted, or its storage is gone. '
    + 'Bring the storage back and look again.'],
  [/no such file in the session/, 'There is none: nothing was recorded, or it is only in the archive.'],
  [/what duration/, 'Give the seconds that the trace ran.'],
  [/did not match any installed|Missing option/, 'The daemon is older than this page. Install the '
    + 'package again.'],
  [/product model/, 'The camera’s parameters can’t be read. Restart the package on the camera and '
    + 'look at the log.'],
];

/**
 * "" when nothing is known to help.
 * @param {string} words
 */
export function adviceFor(words) {
  return ADVICE.find(([pattern]) => pattern.test(words))?.[1] ?? '';
}
