// From strokes to the frames that the recognizer reads, as its training data was prepared. The same
// is done by ../strokes.py, to the bit: only + - * / and comparisons, in the same order.
//
// A stroke is a list of points [x, y] in CSS pixels, y downwards; a single point is a dot.

export const ROWS = 8;  // values of a frame, from top to bottom: 0 is paper, 1 full ink
export const PEN = 8;   // width of the pen on the screen

const BOX = 32;     // pixels a side of the square that a digit is brought into
const BLOCK = 4;    // pixels a side that are counted together
const BOX_PEN = 6;  // width of the pen in that square
const MOST_GAP = 3; // empty columns between two digits

const squared = (a, b) => (a[0] - b[0]) * (a[0] - b[0]) + (a[1] - b[1]) * (a[1] - b[1]);

/** The square of the distance from a point to the line from a to b. */
function squaredDistance(point, a, b) {
  const dx = b[0] - a[0];
  const dy = b[1] - a[1];
  const length = dx * dx + dy * dy;
  if (length === 0) return squared(point, a);
  const along = ((point[0] - a[0]) * dx + (point[1] - a[1]) * dy) / length;
  const t = Math.min(Math.max(along, 0), 1);
  return squared(point, [a[0] + t * dx, a[1] + t * dy]);
}

/** On which side of the line from a to b a point lies: the sign says it. */
const side = (a, b, point) =>
  (b[0] - a[0]) * (point[1] - a[1]) - (b[1] - a[1]) * (point[0] - a[0]);

function cross(a, b, c, d) {
  return side(a, b, c) * side(a, b, d) < 0 && side(c, d, a) * side(c, d, b) < 0;
}

function linesTouch(a, b, c, d) {
  if (Math.max(a[0], b[0]) + PEN < Math.min(c[0], d[0]) ||
      Math.max(c[0], d[0]) + PEN < Math.min(a[0], b[0]) ||
      Math.max(a[1], b[1]) + PEN < Math.min(c[1], d[1]) ||
      Math.max(c[1], d[1]) + PEN < Math.min(a[1], b[1])) {
    return false;
  }
  const reach = PEN * PEN;
  return cross(a, b, c, d) || squaredDistance(a, c, d) <= reach || squaredDistance(b, c, d) <= reach ||
    squaredDistance(c, a, b) <= reach || squaredDistance(d, a, b) <= reach;
}

/** The lines of a stroke; a dot is a line without length. */
const linesOf = (stroke) =>
  stroke.length === 1 ? [[stroke[0], stroke[0]]] : stroke.slice(1).map((point, i) => [stroke[i], point]);

function boxOf(strokes) {
  const box = { left: Infinity, top: Infinity, right: -Infinity, bottom: -Infinity };
  for (const stroke of strokes) {
    for (const [x, y] of stroke) {
      box.left = Math.min(box.left, x);
      box.top = Math.min(box.top, y);
      box.right = Math.max(box.right, x);
      box.bottom = Math.max(box.bottom, y);
    }
  }
  return box;
}

/** Whether one stroke stands above the other: they share half of the narrower one's width. */
function stacked(a, b) {
  const shared = Math.min(a.right, b.right) - Math.max(a.left, b.left) + PEN;
  return shared >= (Math.min(a.right - a.left, b.right - b.left) + PEN) / 2;
}

/** Strokes that touch or stand above one another are one digit; digits from left to right. */
export function groupsOf(strokes) {
  const drawn = strokes.filter((stroke) => stroke.length > 0);
  const boxes = drawn.map((stroke) => boxOf([stroke]));
  const lines = drawn.map(linesOf);
  const group = drawn.map((_, i) => i);
  for (let i = 0; i < drawn.length; ++i) {
    for (let j = 0; j < i; ++j) {
      if (group[i] === group[j]) continue;
      const touch = () => lines[i].some(([a, b]) => lines[j].some(([c, d]) => linesTouch(a, b, c, d)));
      if (stacked(boxes[i], boxes[j]) || touch()) {
        const [from, to] = [group[i], group[j]];
        group.forEach((each, k) => { if (each === from) group[k] = to; });
      }
    }
  }
  return [...new Set(group)]
    .map((number) => drawn.filter((_, i) => group[i] === number))
    .sort((a, b) => boxOf(a).left - boxOf(b).left);
}

/** Marks the pixels of the square whose centre the pen covers on its way from a to b. */
function drawLine(pixels, a, b) {
  const radius = BOX_PEN / 2;
  const first = (low) => Math.max(0, Math.floor(low - radius));
  const end = (high) => Math.min(BOX, Math.floor(high + radius) + 1);
  for (let y = first(Math.min(a[1], b[1])); y < end(Math.max(a[1], b[1])); ++y) {
    for (let x = first(Math.min(a[0], b[0])); x < end(Math.max(a[0], b[0])); ++x) {
      if (squaredDistance([x + 0.5, y + 0.5], a, b) <= radius * radius) pixels[y * BOX + x] = 1;
    }
  }
}

/** The columns of a digit: its box in the middle of the square, the pixels of each block counted. */
function columnsOf(group) {
  const box = boxOf(group);
  const width = box.right - box.left;
  const height = box.bottom - box.top;
  const scale = (BOX - BOX_PEN) / Math.max(width, height, PEN);
  const x0 = (BOX - width * scale) / 2;
  const y0 = (BOX - height * scale) / 2;
  const pixels = new Uint8Array(BOX * BOX);
  for (const stroke of group) {
    const placed = stroke.map(([x, y]) => [(x - box.left) * scale + x0, (y - box.top) * scale + y0]);
    for (const [a, b] of linesOf(placed)) drawLine(pixels, a, b);
  }
  const columns = [];
  for (let c = 0; c < BOX / BLOCK; ++c) {
    const values = new Array(ROWS).fill(0);
    for (let y = 0; y < BOX; ++y) {
      for (let x = c * BLOCK; x < (c + 1) * BLOCK; ++x) {
        values[Math.floor(y / BLOCK)] += pixels[y * BOX + x] / (BLOCK * BLOCK);
      }
    }
    if (values.some((value) => value > 0)) {
      const place = (column) => box.left + (column * BLOCK - x0) / scale;
      columns.push({ values, left: Math.max(place(c), box.left - PEN / 2),
                     right: Math.min(place(c + 1), box.right + PEN / 2) });
    }
  }
  return { columns, box, scale };
}

/**
 * The frames of a drawing: { count, values } with ROWS values a frame, one frame after another, and
 * for each frame where it lies in the drawing, { left, right, digit }; -1 is between two digits.
 */
export function prepare(strokes) {
  const columns = [];
  let inkEnd = null;
  groupsOf(strokes).forEach((group, digit) => {
    const { columns: inked, box, scale } = columnsOf(group);
    if (inkEnd !== null) {
      const room = Math.floor((box.left - inkEnd - PEN) * scale / BLOCK + 0.5);
      const gap = Math.min(Math.max(room, 0), MOST_GAP);
      for (let i = 0; i < gap; ++i) {
        columns.push({ values: new Array(ROWS).fill(0), left: inkEnd, right: box.left, digit: -1 });
      }
    }
    inkEnd = inkEnd === null ? box.right : Math.max(inkEnd, box.right);
    columns.push(...inked.map((column) => ({ ...column, digit })));
  });
  return {
    count: columns.length,
    values: Float32Array.from(columns.flatMap((column) => column.values)),
    places: columns.map(({ left, right, digit }) => ({ left, right, digit })),
  };
}

/** The bytes of an .npy file (format 1.0) of float32 frames. */
export function npyOf({ count, values }) {
  const text = `{'descr': '<f4', 'fortran_order': False, 'shape': (${count}, ${ROWS}), }`;
  const before = 10;
  const length = Math.ceil((before + text.length + 1) / 64) * 64 - before;
  const bytes = new Uint8Array(before + length + values.length * 4);
  const view = new DataView(bytes.buffer);
  bytes.set([0x93, ...new TextEncoder().encode('NUMPY'), 1, 0]);
  view.setUint16(8, length, true);
  bytes.set(new TextEncoder().encode(`${text.padEnd(length - 1)}\n`), before);
  values.forEach((value, i) => view.setFloat32(before + length + i * 4, value, true));
  return bytes;
}
