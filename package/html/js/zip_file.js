// Writes a zip archive. The browser compresses; what is written is kept in blobs, which it may keep on
// disk, so that an archive needs no memory of its size.

const CRC_TABLE = Uint32Array.from({ length: 256 }, (_, index) => {
  let value = index;
  for (let bit = 0; bit < 8; bit++) {
    value = value & 1 ? (value >>> 1) ^ 0xedb88320 : value >>> 1;
  }
  return value;
});
const LARGEST = 0xffffffff; // more needs another format
const MOST_ENTRIES = 0xffff;
const VERSION = 20;
const NAMES_ARE_UTF8 = 0x800;
const DEFLATED = 8;
const LOCAL_HEADER = 0x04034b50;
const DIRECTORY_ENTRY = 0x02014b50;
const END = 0x06054b50;

/** @param {[number, number][]} fields size in bytes and value of each @param {Uint8Array} [more] */
function record(fields, more = new Uint8Array(0)) {
  const length = fields.reduce((sum, [size]) => sum + size, 0);
  const bytes = new Uint8Array(length + more.length);
  const view = new DataView(bytes.buffer);
  let at = 0;
  for (const [size, value] of fields) {
    view[size === 2 ? 'setUint16' : 'setUint32'](at, value, true);
    at += size;
  }
  bytes.set(more, length);
  return bytes;
}

/** "2026-11-21 08:46:09" as the format has times, which begin in 1980. @param {string} text */
function dosTime(text) {
  const [year = 1980, month = 1, day = 1, hour = 0, minute = 0, second = 0] = (/^(\d{4})-(\d\d)-(\d\d) (\d\d):(\d\d):(\d\d)/.exec(text) ?? []).slice(1).map(Number);
  return ((Math.max(0, year - 1980) << 25 | month << 21 | day << 16 | hour << 11 | minute << 5 | second >> 1) >>> 0);
}

export function createZip() {
  /** @type {BlobPart[]} */
  const parts = [];
  /** @type {Uint8Array[]} */
  const directory = [];
  let written = 0;

  return {
    /**
     * Adds a file; the next one after this has resolved.
     * @param {string} name with "/" between folders
     * @param {string} time as "2026-11-21 08:46:09", "" where it is not known
     * @param {(write: (text: string) => Promise<void>) => Promise<void>} fill writes its text
     */
    async add(name, time, fill) {
      const compressor = new CompressionStream('deflate-raw');
      const packed = new Response(compressor.readable).blob();
      packed.catch(() => {}); // told by the writer
      const writer = compressor.writable.getWriter();
      const encoder = new TextEncoder();
      let crc = 0xffffffff;
      let size = 0;
      try {
        await fill(async (text) => {
          const bytes = encoder.encode(text);
          for (const byte of bytes) {
            crc = (CRC_TABLE[(crc ^ byte) & 0xff] ?? 0) ^ (crc >>> 8);
          }
          size += bytes.length;
          await writer.write(bytes);
        });
        await writer.close();
      } catch (error) {
        await writer.abort(error).catch(() => {});
        throw error;
      }
      const blob = await packed;
      const bytes = new TextEncoder().encode(name);
      /** @type {[number, number][]} */
      const common = [[2, VERSION], [2, NAMES_ARE_UTF8], [2, DEFLATED], [4, dosTime(time)], [4, (crc ^ 0xffffffff) >>> 0], [4, blob.size], [4, size],
        [2, bytes.length], [2, 0]];
      const header = record([[4, LOCAL_HEADER], ...common], bytes);
      if (written + header.length + blob.size > LARGEST || size > LARGEST || directory.length >= MOST_ENTRIES) {
        throw new RangeError('The archive becomes too large: 4 GB and 65,535 files are the most.');
      }
      directory.push(record([[4, DIRECTORY_ENTRY], [2, VERSION], ...common, [2, 0], [2, 0], [2, 0], [4, 0], [4, written]], bytes));
      parts.push(header, blob);
      written += header.length + blob.size;
    },
    finish() {
      const length = directory.reduce((sum, entry) => sum + entry.length, 0);
      const end = record([[4, END], [2, 0], [2, 0], [2, directory.length], [2, directory.length], [4, length], [4, written], [2, 0]]);
      return new Blob(/** @type {BlobPart[]} */ ([...parts, ...directory, end]), { type: 'application/zip' });
    },
  };
}
