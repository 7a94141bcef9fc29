// Makes the pictures of the page smaller: a page has few colours, so one byte is enough for a pixel.
import { deflateSync, inflateSync } from 'node:zlib';

const kSignature = Buffer.from([0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a]);
const kMostColours = 256;

const kCrc = Uint32Array.from({ length: 256 }, (_, byte) => {
  let crc = byte;
  for (let bit = 0; bit < 8; bit++) crc = crc & 1 ? (crc >>> 1) ^ 0xedb88320 : crc >>> 1;
  return crc;
});

function chunk(name: string, data: Buffer): Buffer {
  const body = Buffer.concat([Buffer.from(name, 'latin1'), data]);
  let crc = 0xffffffff;
  for (const byte of body) crc = kCrc[(crc ^ byte) & 0xff]! ^ (crc >>> 8);
  const ends = Buffer.alloc(8);
  ends.writeUInt32BE(data.length, 0);
  ends.writeUInt32BE((crc ^ 0xffffffff) >>> 0, 4);
  return Buffer.concat([ends.subarray(0, 4), body, ends.subarray(4)]);
}

/** What PNG predicts for a byte from the ones on its left, above it and on the left of that. */
function paeth(left: number, above: number, corner: number): number {
  const [a, b, c] = [above - corner, left - corner, left + above - 2 * corner].map(Math.abs);
  return a! <= b! && a! <= c! ? left : b! <= c! ? above : corner;
}

/** The pixels of a PNG with 8 bits a channel and no transparency, as red, green and blue in 24 bits. */
function pixelsOf(png: Buffer): { width: number; height: number; pixels: Uint32Array } {
  const width = png.readUInt32BE(16);
  const height = png.readUInt32BE(20);
  const channels = png[25] === 6 ? 4 : 3;
  const parts: Buffer[] = [];
  for (let at = 8; at < png.length; ) {
    const length = png.readUInt32BE(at);
    if (png.toString('latin1', at + 4, at + 8) === 'IDAT') parts.push(png.subarray(at + 8, at + 8 + length));
    at += length + 12;
  }
  const raw = inflateSync(Buffer.concat(parts));
  const stride = width * channels;
  const pixels = new Uint32Array(width * height);
  let above = new Uint8Array(stride);
  for (let y = 0; y < height; y++) {
    const filter = raw[y * (stride + 1)]!;
    const line = new Uint8Array(raw.subarray(y * (stride + 1) + 1, (y + 1) * (stride + 1)));
    for (let i = 0; i < stride; i++) {
      const left = i < channels ? 0 : line[i - channels]!;
      const up = above[i]!;
      const corner = i < channels ? 0 : above[i - channels]!;
      line[i]! += [0, left, up, (left + up) >> 1, paeth(left, up, corner)][filter]!;
    }
    for (let x = 0; x < width; x++) {
      const at = x * channels;
      pixels[y * width + x] = (line[at]! << 16) | (line[at + 1]! << 8) | line[at + 2]!;
    }
    above = line;
  }
  return { width, height, pixels };
}

/** The same picture with at most 256 colours: the most frequent ones, and for others the nearest of them. */
export function withPalette(png: Buffer): Buffer {
  const { width, height, pixels } = pixelsOf(png);
  const counts = new Map<number, number>();
  for (const pixel of pixels) counts.set(pixel, (counts.get(pixel) ?? 0) + 1);
  const palette = [...counts]
    .sort((a, b) => b[1] - a[1] || a[0] - b[0])
    .slice(0, kMostColours)
    .map(([colour]) => colour);
  const indexes = new Map(palette.map((colour, index) => [colour, index]));
  const nearest = (colour: number): number => {
    let best = 0;
    let least = Infinity;
    palette.forEach((other, index) => {
      const distance = [16, 8, 0].reduce(
        (sum, shift) => sum + (((colour >> shift) & 255) - ((other >> shift) & 255)) ** 2,
        0,
      );
      if (distance < least) [best, least] = [index, distance];
    });
    return best;
  };
  for (const colour of counts.keys()) {
    if (!indexes.has(colour)) indexes.set(colour, nearest(colour));
  }
  const lines = Buffer.alloc(height * (width + 1)); // each begins with its filter: none
  for (let y = 0; y < height; y++) {
    for (let x = 0; x < width; x++) {
      lines[y * (width + 1) + 1 + x] = indexes.get(pixels[y * width + x]!)!;
    }
  }
  const header = Buffer.from([0, 0, 0, 0, 0, 0, 0, 0, 8, 3, 0, 0, 0]);
  header.writeUInt32BE(width, 0);
  header.writeUInt32BE(height, 4);
  const colours = Buffer.from(palette.flatMap((colour) => [colour >> 16, (colour >> 8) & 255, colour & 255]));
  return Buffer.concat([
    kSignature,
    chunk('IHDR', header),
    chunk('PLTE', colours),
    chunk('IDAT', deflateSync(lines, { level: 9, memLevel: 9 })),
    chunk('IEND', Buffer.alloc(0)),
  ]);
}
