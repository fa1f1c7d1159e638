// Takes out of texts what tells whose recording it is: names of users, addresses, host names, serial and
// MAC numbers, passwords. Each has a stand-in, "user-1", that is the same in all texts of one use. Pure.
//
// Two passes: `learn` over all texts finds what stands where its meaning is known, as behind "User:";
// `hide` replaces that wherever else it stands, in the spellings in which it is met.

/** @typedef {'user' | 'password' | 'address' | 'host' | 'serial' | 'mac' | 'mail'} Kind */

/** What is told of each kind. @type {Record<Kind, string>} */
export const SECRET_TITLES = {
  user: 'user name', password: 'password or token', address: 'network address', host: 'host name', serial: 'serial number', mac: 'MAC address',
  mail: 'mail address',
};
const KINDS = /** @type {Kind[]} */ (Object.keys(SECRET_TITLES));

const SHORTEST = 3; // of what is looked for wherever it stands
const SHORTEST_PASSWORD = 6;
const MOST_LITERALS = 20000; // looked for wherever they stand: nobody has so many but who floods a log
const MOST_LINE = 1024 * 1024;
/** Instead of what can't be looked through. */
export const LEFT_OUT_LINE = '[a line that is too long was left out]';

// Words that tell nothing, and would take half of a log with them.
const PLAIN_WORDS = new Set(('root admin administrator operator viewer user users guest anonymous nobody null none no unknown default localhost '
  + 'localdomain local camera device system daemon service host hosts server client switch router gateway network test monitor video audio '
  + 'stream log www-data true false yes on off basic digest failed failure success enabled disabled required invalid incorrect missing '
  + 'error warning info debug password session core report cpu memory load time date total free max min www ftp smtp ntp api pool mail mac address serial').split(' '));
const PLAIN_ADDRESS = /^(?:0\.0\.0\.0|127\.\d+\.\d+\.\d+|255\.255\.255\.\d+|::1?)$/;
const PLAIN_MAC = /^(?:0{12}|f{12})$/;
const PUBLIC_HOST = /^(?:www\.|schemas\.|docs\.)*(?:w3|onvif|xmlsoap|oasis-open|freedesktop)\.org$/i;
const STAND_IN = new RegExp(`^(?:${KINDS.join('|')})-\\d+(?!\\w)`);

// --- Where secrets stand. Each pattern has what stands before, then the value; none goes over a line's end.

const GAP = '[ \\t]{0,3}';
/** Between a name and its value: `name=`, `"name": `. */
const IS = `\\\\{0,3}["']?${GAP}(?:=>|[=:])${GAP}`;
/** A value in quotes of any kind, escaped ones as well, or up to what ends a word. */
const VALUE = '(?:\\\\+"(?<escaped>[^\\r\\n]*?)\\\\+"|"(?<quoted>(?:[^"\\\\\\r\\n]|\\\\[^\\r\\n])*)"|\'(?<single>[^\'\\r\\n]*)\'|(?<bare>[^\\s&"\'<>\\\\]+))';
/** The same within an argument of a web address: `name%3Dvalue%26`. */
const ENCODED = '%(?:25)?3D(?<bare>(?:(?!%26|%2526|%22)[^\\s&"\'<>\\\\,;()])+)';
/** A name, which ends at more. */
const NAME_VALUE = VALUE.replace('[^\\s&', '[^\\s,;:()\\]&');
const LONG_SECRET = 'passw(?:or)?d|passwd|passphrase|passcode|pwd|token|secret|api[_-]?key|access[_-]?key|private[_-]?key|credentials?|session[_-]?id|signature|wpa[_-]?psk';
const SHORT_SECRET = 'pass|pw|key|auth|sid|sig|psk|jwt|community';
const USER = 'user[ _-]?name|user[_-]?id|user|usr|login[_-]?name|login|logname|account|ruser';
// Known ones, so that no name of a file is taken for one.
const TOP_LEVEL = 'com|net|org|edu|gov|mil|biz|io|eu|de|se|uk|us|fr|nl|dk|fi|jp|cn|ch|es|pl|cz|ru|br|au|ca|kr|tw|local|lan|home|internal|intranet|corp|localdomain|arpa|example|test|invalid';
const LABEL = '[a-z0-9][a-z0-9-]{0,62}\\.';
const DOMAIN = `(?:(?:${LABEL}){1,8}(?:${TOP_LEVEL})|(?:${LABEL}){2,8}(?!gz|xz|js|so|sh|py|ko|cc|db|md)[a-z]{2})`;
const MAIL_DOMAIN = `(?:${LABEL}){1,8}(?!csv|txt|log|conf|service|socket|json|xml|timer|target|mount|device|slice|scope)[a-z]{2,}`;

/** Pattern, kind, and what a text has in which it is worth while to look for it. @type {[RegExp, Kind, RegExp?][]} */
const FIELDS = [
  [/((?:set-)?cookie["']?[ \t]*[:=][ \t]*)(?<bare>[^\r\n"]+)/gi, 'password'],
  [/(authorization\\{0,3}["']?[ \t]*[:=][ \t]*["']?)(?<bare>[^\r\n"]+)/gi, 'password'],
  [/(\bbearer[ \t]+)(?<bare>[\w.~+/=-]{8,})/gi, 'password'],
  [/(\bBasic[ \t]+)(?<bare>(?=\S*[0-9=])[A-Za-z0-9+/]{6,}={0,2})/g, 'password'],
  [new RegExp(`((?:${LONG_SECRET})\\w{0,20}${IS})${VALUE}`, 'gi'), 'password'],
  [new RegExp(`((?<![A-Za-z0-9])(?:${SHORT_SECRET})${IS})${VALUE}`, 'gi'), 'password'],
  [new RegExp(`((?:${LONG_SECRET})\\w{0,20}|(?:${SHORT_SECRET}))${ENCODED}`, 'gi'), 'password', /%(?:25)?3D/i],
  [new RegExp(`(<[\\w:.-]{0,40}?(?:${LONG_SECRET}|${SHORT_SECRET})\\w{0,20}(?:[ \\t][^<>\\r\\n]{0,300})?>)(?<bare>[^<\\r\\n]+)`, 'gi'), 'password'],
  // Of the web server's log and of what was called.
  [/(IPAddress:\S{1,64} User:)(?<bare>[^\r\n]{0,1000}?)(?= {1,2}")/g, 'user'],
  [/(\bothers\/)(?<bare>[^\/@\r\n]+)(?=@[^\/\r\n]*\.csv)/g, 'user'],
  [/(\bothers\/[^\/\r\n]*@)(?<bare>[^\/@\r\n]+)(?=\.csv)/g, 'user'],
  [/(\/home\/)(?<bare>[^\/\s"':]+)/g, 'user'],
  [/(\b(?:accepted|failed|invalid|illegal|postponed)\b[^\r\n]{0,60}?\b(?:for|user)[ \t]+(?:(?:invalid|illegal)[ \t]+)?(?:user[ \t]+)?["']?)(?<bare>[^\s"',;()]+)(?=["']?[ \t]+(?:from|by|port))/gi, 'user'],
  [/(\b(?:for|of|by|as|from)[ \t]+(?:(?:invalid|illegal|authenticating)[ \t]+)?user[ \t]+["'“‘]?)(?<bare>[^\s"'“”‘’,;()]+)/gi, 'user'],
  [/(\buser[ \t]+["“])(?<bare>[^"”\r\n]+)/gi, 'user'],
  [/(\buser[ \t]+["']?)(?<bare>[^\s"',;()]+)(?=["']?[ \t]+(?:logged|has|was|from|is|failed|authenticated|not|tried|connected|added|removed|changed|denied|created|deleted|locked|opened|closed|started|stopped|may|can|cannot|could|did|does|with|at|on)\b)/gi, 'user'],
  [/()(?<![\w.-])(?<bare>[\w.@-]{1,64})(?=[ \t]+logged (?:in|out|on|off)\b)/gi, 'user', /logged/],
  [new RegExp(`((?<![A-Za-z])(?:(?:full|display|real|first|last)[ _-]?name|contact|owner)${IS})(?:"(?<quoted>[^"\r\n]*)"|(?<bare>[^\r\n,;"'<>&]+))`, 'gi'), 'user'],
  [/(\bsudo(?:\[\d+\])?:[ \t]+)(?<bare>\S+)(?= : )/g, 'user'],
  [new RegExp(`((?<![A-Za-z])(?:${USER})${IS})${NAME_VALUE}`, 'gi'), 'user'],
  [new RegExp(`(${USER})${ENCODED}`, 'gi'), 'user', /%(?:25)?3D/i],
  [new RegExp(`(<[\\w:.-]{0,40}?(?:${USER})(?:[ \\t][^<>\\r\\n]{0,300})?>)(?<bare>[^<\\r\\n]+)`, 'gi'), 'user'],
  [new RegExp(`()(?<![\\w.+-])(?<bare>[\\w.+-]{1,64}(?:@|%40)${MAIL_DOMAIN})(?![\\w-])`, 'gi'), 'mail', /@|%40/],
  [/(\bserial[ \t_-]{0,3}(?:number|no\.?|nr\.?)?\\{0,3}["']?[ \t]{0,20}[=:>][ \t]{0,20}\\{0,3}["']?)(?<bare>(?=[A-Za-z0-9-]*\d)[A-Za-z0-9-]{6,})/gi, 'serial'],
  [/(\bS\/N:?[ \t]*)(?<bare>[A-Za-z0-9-]{4,})/g, 'serial'],
  [/(Vandrel_)(?<bare>(?=[0-9A-Za-z]*\d)[0-9A-Za-z]{6,})/g, 'serial'],
  [/()(?<![0-9A-Za-z])(?<bare>(?=[0-9]*[A-F])(?=[A-F]*[0-9])[0-9A-F]{12})(?![0-9A-Za-z])/g, 'serial', /[A-F][0-9]|[0-9][A-F]/],
  [/(\b(?:mac|hw|ether|serial|device)[\w .-]{0,16}[=: \t"']{1,4})(?<bare>[0-9a-f]{12})(?![0-9a-z])/gi, 'serial'],
  [/()(?<![0-9a-f:-])(?<bare>[0-9a-f]{2}(:|-|%3A)(?:[0-9a-f]{2}\3){4}[0-9a-f]{2})(?![:-]?[0-9a-f])/gi, 'mac', /(?:[:-]|%3A)[0-9a-f]{2}(?:[:-]|%3A)[0-9a-f]{2}(?:[:-]|%3A)[0-9a-f]{2}(?:[:-]|%3A)/i],
  [/()(?<![0-9a-z.])(?<bare>(?=[0-9.]*[a-f])(?:[0-9a-f]{4}\.){2}[0-9a-f]{4})(?![0-9a-z.])/gi, 'mac', /\.[0-9a-f]{4}\.[0-9a-f]{4}/i],
  [/()(?:(?<![\w:.])|(?<=[g-z_][a-z_]{0,10}:))(?<bare>(?:[0-9a-f]{0,4}(?::|%3A)){2,8}(?:(?:\d{1,3}\.){3}\d{1,3}|[0-9a-f]{1,4})?(?<=[0-9a-f]|:(?::|%3A)|%3A%3A))(?!\w|:[0-9a-f:])/gi, 'address', /::|%3A|(?::[0-9a-f]{1,4}){7}/i],
  [/()(?<![\d.])(?<bare>(?:\d{1,3}\.){3}\d{1,3})(?!\.?\d)/g, 'address', /\d\.\d{1,3}\.\d{1,3}\./],
  // The device test: its log, its events' names with "o" for ".".
  [/(Network Device Test: \[)(?<bare>[^\]\r\n]+)/g, 'host'],
  [/(nfd_(?:not_)?ip)(?<bare>[^\s'"\/]{1,64}?)(?=p-?\d+)/g, 'host'],
  [/(^\d{4}-\d\d-\d\dT\S+ )(?<bare>\S+)(?= \[)/gm, 'host'],
  [/(^(?:search|domain)[ \t]+)(?<bare>[\w.-]+)/gm, 'host'],
  [/(\bLinux )(?<bare>[\w.-]+)(?= \d+\.\d+)/g, 'host'],
  [/(^[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d )(?<bare>\S+)(?= \S+:)/gm, 'host'],
  [/((?<![\w.])core\.[^\s\/]{1,200}?\.\d{1,10}\.)(?<bare>[^\s\/]{1,100}?)(?=\.\d{9,11}(?!\d))/g, 'host'],
  [new RegExp(`((?<![A-Za-z])(?:host[ _-]?name|host|rhost|domain[ _-]?name|domain|workgroup|realm|e?ssid)${IS})${NAME_VALUE}`, 'gi'), 'host'],
  [new RegExp(`((?<![A-Za-z])[a-z]{0,12}_?server(?:=|"[ \\t]{0,3}:[ \\t]{0,3}(?=")))${NAME_VALUE}`, 'gi'), 'host'],
  [new RegExp(`()(?<![\\w.%-])(?<bare>${DOMAIN})(?![\\w-]|\\.\\w)`, 'gi'), 'host'],
];
/** Of texts that have no words, as rows of numbers. */
const NUMBERS = FIELDS.filter(([, kind]) => kind === 'mac' || kind === 'address' || kind === 'serial');
const LETTERS = /[A-Za-z]{2}/;
/** A web address up to its path, plain or as an argument of another one. */
const WEB_ADDRESS = /(:\/\/|%3A%2F%2F)((?:(?!%2F|%3F)[^\s\/"'<>?#\\)])+)/gi;
const DEVICE_TEST = /\/devicetest_snapshots\.csv$/; // date,time,name,address,...
const VERSION_BEFORE = /(?:firmware|version|\bfw|release)["']?\w{0,10}[ \t"':=]{0,4}v?$|(?<![a-z])v$/i;

/** @param {string} value */
function isIpv6(value) {
  const plain = value.replaceAll(/%3A/gi, ':').toLowerCase();
  const [head = '', tail, ...more] = plain.split('::');
  const groups = [head, tail ?? ''].flatMap((part) => (part === '' ? [] : part.split(':')));
  const count = groups.length + Number(groups.at(-1)?.includes('.') ?? false);
  return more.length === 0 && groups.every((group) => /^[0-9a-f]{1,4}$/.test(group) || isIpv4(group))
    && (tail === undefined ? count === 8 : count < 8) && /\d/.test(plain);
}
/** @param {string} value */
const isIpv4 = (value) => /^(?:\d{1,3}\.){3}\d{1,3}$/.test(value) && value.split('.').every((part) => Number(part) < 256);

/** By which spellings of one thing are the same. @param {Kind} kind @param {string} value */
function keyOf(kind, value) {
  const low = value.toLowerCase();
  return kind === 'mac' ? low.replaceAll(/%3a|[^0-9a-f]/g, '') : kind === 'address' ? low.replaceAll('%3a', ':')
    : kind === 'mail' ? low.replace('%40', '@') : low;
}

/** The spellings in which a value is met: as it is, in a web address, in JSON, in markup. @param {string} value */
function spellings(value) {
  const form = encodeURIComponent(value);
  const json = JSON.stringify(value).slice(1, -1).replaceAll(/[^\x20-\x7e]/g, (character) => `\\u${character.charCodeAt(0).toString(16).padStart(4, '0')}`);
  const markup = value.replaceAll('&', '&amp;').replaceAll('<', '&lt;').replaceAll('>', '&gt;').replaceAll('"', '&quot;');
  return new Set([value, form, form.replaceAll('%20', '+'), encodeURIComponent(form), JSON.stringify(value).slice(1, -1), json, markup]
    .map((one) => one.toLowerCase()));
}

const RUN = /[0-9A-Za-z\u00aa-\u1fff\u2c00-\uffff]+/; // letters and digits
/** Whether a text that ends with the one and goes on with the other is in the midst of a word. @param {string} end @param {string} next */
const inWord = (end, next) => new RegExp(`${RUN.source}$`).test(end) && RUN.test(next);
const escaped = (/** @type {string} */ text) => text.replaceAll(/[^0-9A-Za-z]/g, '\\$&');

/** @typedef {ReturnType<typeof createSecrets>} Secrets */

/**
 * @param {Iterable<string>} [words] that are no secrets, as the names of the session's own folders
 */
export function createSecrets(words = []) {
  const plain = new Set([...PLAIN_WORDS, ...[...words].map((word) => word.toLowerCase())]);
  /** Of each kind, by its key. @type {Map<string, string>} */
  const standIns = new Map();
  /** @type {Set<string>} */
  const remembered = new Set();
  /** What is looked for as a word, by its first run of letters and digits. @type {Map<string, {text: string, kind: Kind, key: string}[]>} */
  const literals = new Map();
  /** What is looked for also within words. @type {Map<string, {kind: Kind, key: string}>} */
  const within = new Map();
  /** Hosts and addresses as events' names have them. @type {Map<string, {kind: Kind, key: string}>} */
  const inEvents = new Map();
  /** @type {RegExp | null} */
  let withinPattern = null;
  const numbers = /** @type {Record<Kind, number>} */ (Object.fromEntries(KINDS.map((kind) => [kind, 0])));
  /** @type {Record<Kind, {different: Set<string>, places: number}>} */
  const replaced = /** @type {any} */ (Object.fromEntries(KINDS.map((kind) => [kind, { different: new Set(), places: 0 }])));
  let counting = true;
  /** @type {Set<{text: string}[]>} */
  const unsorted = new Set();
  let literalCount = 0;
  let hasNumbers = false; // whether what is looked for as a word may be without letters

  /** @param {Kind} kind @param {string} key */
  function standIn(kind, key) {
    const known = standIns.get(`${kind} ${key}`);
    const name = known ?? `${kind}-${++numbers[kind]}`;
    if (!known) {
      standIns.set(`${kind} ${key}`, name);
    }
    if (counting) {
      replaced[kind].different.add(name);
      replaced[kind].places++;
    }
    return name;
  }

  /** @param {string} text @param {Kind} kind @param {string} key */
  function addLiteral(text, kind, key) {
    const first = RUN.exec(text);
    if (!first) {
      return;
    }
    if (++literalCount > MOST_LITERALS) {
      return; // it is replaced where its place tells what it is
    }
    hasNumbers ||= kind !== 'address' && !LETTERS.test(text); // addresses are known by their form
    const own = { text: text.slice(first.index), kind, key };
    const list = literals.get(first[0]) ?? [];
    list.push(own);
    literals.set(first[0], list);
    unsorted.add(list);
  }

  /** Has it replaced wherever it stands. @param {Kind} kind @param {string} value */
  function remember(kind, value) {
    const key = keyOf(kind, value);
    if (remembered.has(`${kind} ${key}`)) {
      return;
    }
    remembered.add(`${kind} ${key}`);
    standIn(kind, key);
    if (kind === 'mac' || (kind === 'serial' && key.length >= 8)) {
      // A camera's serial number is its MAC address without separators.
      if (kind === 'serial' || !within.has(key)) {
        within.set(key, { kind, key });
        withinPattern = null;
      }
    } else if (kind === 'address') {
      inEvents.set(key.replaceAll('.', 'o'), { kind, key });
      if (isIpv4(key)) {
        // As the kernel's tables have it.
        const hex = key.split('.').map((part) => Number(part).toString(16).padStart(2, '0'));
        for (const word of [hex.join(''), hex.reverse().join('')].filter((one) => /[a-f]/.test(one))) {
          addLiteral(word, kind, key);
          addLiteral(`0x${word}`, kind, key);
        }
        addLiteral(key.replaceAll('.', '-'), kind, key);
        addLiteral(key.replaceAll('.', '_'), kind, key);
      }
    } else {
      if (kind === 'host') {
        inEvents.set(key.replaceAll('.', 'o'), { kind, key });
        const [first = '', ...domain] = key.split('.');
        // "nvr-7.firma.at" is also met as "nvr-7", and others of its domain are there.
        if (domain.length > 0 && /[\d-]/.test(first) && isTelling('host', first)) {
          addLiteral(first, kind, key);
        }
        if (domain.length > 1) {
          remember('host', domain.join('.'));
        }
      } else if (kind === 'mail') {
        remember('host', key.slice(key.indexOf('@') + 1));
      }
      for (const text of spellings(value)) {
        addLiteral(text, kind, key);
      }
    }
  }

  /** @param {Kind} kind @param {string} value */
  const isTelling = (kind, value) => value.length >= (kind === 'password' ? SHORTEST_PASSWORD : SHORTEST) && !plain.has(value.toLowerCase())
    && !/^\d{1,4}$/.test(value);

  /**
   * What takes the place of a value whose kind is known by where it stands.
   * @param {Kind} kind @param {string} value @param {boolean} learning
   * @param {string} [before] what stands in front of it
   * @returns {string}
   */
  function inPlace(kind, value, learning, before = '=') {
    const trimmed = value.trim();
    const sentence = kind === 'user' || kind === 'host' ? /[.,;:!?]+$/.exec(trimmed) : null;
    if (sentence && sentence.index > 0) {
      return inPlace(kind, trimmed.slice(0, sentence.index), learning, before) + sentence[0];
    }
    if (trimmed === '' || trimmed === '-' || STAND_IN.test(trimmed)) {
      return value;
    }
    if (kind === 'host') {
      const event = inEvents.get(trimmed.toLowerCase());
      const numbers4 = trimmed.replaceAll(/(?<=\d)o(?=\d)/g, '.');
      if (isIpv4(numbers4) || isIpv6(numbers4)) {
        return PLAIN_ADDRESS.test(numbers4) ? value : inPlace('address', numbers4, learning);
      }
      if (event) {
        return standIn(event.kind, event.key);
      }
      if (plain.has(trimmed.toLowerCase()) || PUBLIC_HOST.test(trimmed) || /^rc\.local$/.test(trimmed)) {
        return value;
      }
    }
    const key = keyOf(kind, trimmed);
    if ((kind === 'address' && (PLAIN_ADDRESS.test(key) || !(isIpv4(key) || isIpv6(key)))) || (kind === 'mac' && PLAIN_MAC.test(key))
        || (kind === 'user' && plain.has(key) && key !== '')) {
      return kind === 'user' && !/^(?:null|none|unknown|no)$/.test(key) ? standIn(kind, key) : value;
    }
    // "auth: something" may be a sentence: such a word is only replaced there.
    if (learning && isTelling(kind, trimmed) && (kind !== 'password' || /[=>"']|%3D/i.test(before) || !/^[a-z]+$/.test(trimmed))) {
      remember(kind, trimmed);
    }
    return standIn(kind, key);
  }

  /** "user:password@host:80" @param {string} text @param {boolean} isArgument @param {boolean} learning */
  function inAuthority(text, isArgument, learning) {
    const [at, colon] = isArgument ? [/%40/, /%3A/i] : [/@/, /:/];
    const parts = text.split(at);
    const place = parts.pop() ?? '';
    const [host = '', ...port] = place.startsWith('[') || place.split(colon).length > 2 ? [place] : place.split(colon);
    const shown = isTelling('host', host) && /[a-z]/i.test(host) && !/[[:]/.test(host) ? inPlace('host', host, learning) : host;
    const sign = text.slice(text.length - place.length - (isArgument ? 3 : 1), text.length - place.length);
    const own = parts.join(sign);
    const [user = '', ...rest] = own.split(colon);
    const mark = isArgument ? '%3A' : ':';
    const password = rest.join(mark);
    return (parts.length === 0 ? '' : inPlace('user', decoded(user), learning)
      + (rest.length > 0 ? mark + inPlace('password', decoded(password), learning) : '') + sign) + [shown, ...port].join(mark);
  }

  /** @param {string} text @param {boolean} learning */
  function inFields(text, learning) {
    let out = text.replaceAll(WEB_ADDRESS, (_, begin, authority) => begin + inAuthority(authority, begin !== '://', learning));
    for (const [pattern, kind, needed] of LETTERS.test(text) ? FIELDS : NUMBERS) {
      if (needed && !needed.test(out)) {
        continue;
      }
      out = out.replaceAll(pattern, (...found) => {
        const [whole = '', before = ''] = found;
        const groups = /** @type {Record<string, string | undefined>} */ (found.at(-1));
        const value = groups.escaped ?? groups.quoted ?? groups.single ?? groups.bare ?? '';
        if (value === '' || (kind === 'address' && isVersion(/** @type {string} */ (found.at(-2)), /** @type {number} */ (found.at(-3))))) {
          return whole;
        }
        const place = whole.indexOf(value, before.length);
        const meant = kind === 'user' || kind === 'password' ? decoded(value) : value;
        return whole.slice(0, place) + inPlace(kind, meant, learning, whole.slice(0, place)) + whole.slice(place + value.length);
      });
    }
    return out;
  }

  /** What was learnt, wherever it stands. @param {string} text */
  function elsewhere(text) {
    withinPattern ??= within.size === 0 ? null
      : new RegExp([...within.keys()].map((key) => (/^[0-9a-f]{12}$/.test(key) ? key.replaceAll(/..(?!$)/g, '$&(?:[:.-]|%3A)?') : escaped(key))).join('|'), 'gi');
    const outer = withinPattern === null ? text : text.replaceAll(withinPattern, (found) => {
      const low = found.toLowerCase();
      const known = within.get(low) ?? within.get(low.replaceAll(/%3a|[:.-]/g, ''));
      return known ? standIn(known.kind, known.key) : found;
    });
    if (literals.size === 0 || !(hasNumbers || LETTERS.test(text))) {
      return outer;
    }
    for (const list of unsorted) {
      list.sort((a, b) => b.text.length - a.text.length);
    }
    unsorted.clear();
    const low = outer.toLowerCase();
    const sameLength = low.length === outer.length; // of few letters the small one is two
    const search = sameLength ? low : outer;
    let out = '';
    let done = 0;
    const runs = new RegExp(RUN, 'g');
    for (let run = runs.exec(search); run; run = runs.exec(search)) {
      const found = literals.get(sameLength ? run[0] : run[0].toLowerCase())?.find(({ text: one }) => (sameLength ? search.startsWith(one, run?.index)
        : search.slice(run?.index, (run?.index ?? 0) + one.length).toLowerCase() === one)
        && !inWord(one, search.charAt((run?.index ?? 0) + one.length)));
      if (found) {
        out += outer.slice(done, run.index) + standIn(found.kind, found.key);
        done = run.index + found.text.length;
        runs.lastIndex = done;
      }
    }
    return done === 0 ? outer : out + outer.slice(done);
  }

  return {
    /** What is known to be one. @param {Kind} kind @param {string} value */
    add(kind, value) {
      counting = false;
      if (isTelling(kind, value.trim())) {
        remember(kind, value.trim());
      }
      counting = true;
    },
    /** Finds secrets in whole lines, or in a file's path. @param {string} text @param {string} [path] of the file */
    learn(text, path = '') {
      counting = false;
      inFields(text, true);
      if (DEVICE_TEST.test(path)) {
        for (const line of text.split(/\r?\n/)) {
          const [day = '', , name = '', address = ''] = [...line.matchAll(/("(?:[^"]|"")*"|[^,]*)(?:,|$)/g)].map((cell) => cell[1] ?? '');
          if (/^\d{4}-/.test(day)) {
            inPlace('host', name.replaceAll('"', ''), true);
            inPlace('host', address, true);
          }
        }
      }
      counting = true;
    },
    /** Whole lines, or a path, with stand-ins for what is secret. @param {string} text */
    hide: (text) => elsewhere(inFields(text, false)),
    /** How many different ones of each kind were replaced, and in how many places. */
    counts: () => KINDS.map((kind) => ({ kind, different: replaced[kind].different.size, places: replaced[kind].places }))
      .filter(({ places }) => places > 0),
  };
}

/** @param {string} text @param {number} at */
const isVersion = (text, at) => VERSION_BEFORE.test(text.slice(Math.max(0, at - 40), at));

/** A value of a web address as it was meant. @param {string} value */
function decoded(value) {
  if (!/%[0-9a-f]{2}/i.test(value)) {
    return value;
  }
  try {
    return decodeURIComponent(value);
  } catch {
    return value;
  }
}

/**
 * Whole lines out of bytes that come in pieces. What begins with "-----BEGIN" up to "-----END", a key or a
 * certificate, and lines that are too long are left out.
 * @param {(lines: string) => void} take
 */
export function linesOut(take) {
  const decoder = new TextDecoder();
  let rest = '';
  let skipping = false; // a line that is too long
  let inKey = false;
  let [characters, odd] = [0, 0];

  /** @param {string} lines */
  function withoutKeys(lines) {
    if (!inKey && !lines.includes('-----BEGIN')) {
      return lines;
    }
    return lines.split(/(?<=\n)/).map((line) => {
      const begins = line.indexOf('-----BEGIN');
      const wasIn = inKey || begins >= 0;
      inKey = wasIn && !line.includes('-----END');
      return !wasIn ? line : begins >= 0 ? `${line.slice(0, begins)}[a key or certificate was left out]\n` : '';
    }).join('');
  }
  /** @param {string} text */
  function add(text) {
    characters += text.length;
    odd += text.match(/[\x01-\x08\x0b\x0e-\x1a\x1c-\x1f\ufffd]/g)?.length ?? 0;
    // Zeros are what a power cut leaves, and half of each letter in other encodings.
    rest += text.replaceAll('\0', '');
    const end = rest.lastIndexOf('\n') + 1;
    if (end > 0) {
      const lines = rest.slice(skipping ? rest.indexOf('\n') + 1 : 0, end);
      skipping = false;
      rest = rest.slice(end);
      if (lines !== '') {
        take(withoutKeys(lines));
      }
    }
    if (rest.length > MOST_LINE) {
      if (!skipping) {
        take(`${LEFT_OUT_LINE}\n`);
      }
      skipping = true;
      rest = '';
    }
  }
  return {
    /** @param {Uint8Array} piece */
    add(piece) {
      add(decoder.decode(piece, { stream: true }));
    },
    /** False where it was no text. */
    finish() {
      add(decoder.decode());
      if (rest !== '' && !skipping) {
        take(withoutKeys(rest));
      }
      return odd * 50 <= characters + 400;
    },
  };
}
