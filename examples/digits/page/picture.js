// Pictures of what was sent and of what came back.

import { ROWS } from './frames.js';

const SVG = 'http://www.w3.org/2000/svg';
const HEIGHT = 8;  // of a bracket, in CSS pixels
const WIDTH = 10;  // of a frame

function element(name, attributes, text = '') {
  const made = document.createElementNS(SVG, name);
  for (const [key, value] of Object.entries(attributes)) made.setAttribute(key, value);
  made.textContent = text;
  return made;
}

/** The frames as a picture: a column a frame, a pixel a value. */
export function drawFrames(canvas, { count, values }) {
  canvas.width = Math.max(1, count);
  canvas.height = ROWS;
  canvas.style.width = `min(100%, ${count * WIDTH}px)`;
  const context = canvas.getContext('2d');
  const ink = getComputedStyle(canvas).color.match(/[\d.]+/g).slice(0, 3);
  const image = context.createImageData(canvas.width, ROWS);
  values.forEach((value, i) => {
    const pixel = (i % ROWS) * canvas.width + Math.floor(i / ROWS);
    image.data.set([...ink, Math.round(value * 255)], pixel * 4);
  });
  context.putImageData(image, 0, 0);
}

/** The digit of the drawing that each label was read from: one peak stands near every digit. */
function digitsOf(spans, places) {
  const digits = [];
  for (const [begin] of spans) {
    // Between two digits it is the left one's, unless that has a label already.
    const left = Math.max(...places.slice(0, begin + 1).map((place) => place.digit));
    const isBetween = places[begin].digit === -1;
    digits.push(isBetween && digits[digits.length - 1] === left ? left + 1 : left);
  }
  return digits;
}

/** The frames [begin, end) of each label: its digit's, borders midway between peaks in the same one. */
export function extentsOf(spans, places) {
  const digits = digitsOf(spans, places);
  const midway = (i) => Math.ceil((spans[i][1] + spans[i + 1][0]) / 2);
  return digits.map((digit, i) => {
    const first = places.findIndex((place) => place.digit === digit);
    const last = places.findLastIndex((place) => place.digit === digit);
    const begin = digits[i - 1] === digit ? Math.min(midway(i - 1), last) : first;
    const end = digits[i + 1] === digit ? midway(i) : last + 1;
    return [begin, Math.max(end, begin + 1)];
  });
}

/** A bracket under what each label was read from, and the label beneath. */
export function drawBrackets(svg, { spans, words, places, scale }) {
  svg.replaceChildren(...extentsOf(spans, places).flatMap(([begin, end], i) => {
    const left = places[begin].left * scale;
    const right = places[end - 1].right * scale;
    return [
      element('path', { d: `M${left} 0 v${HEIGHT} H${right} v${-HEIGHT}` }),
      element('text', { x: (left + right) / 2, y: HEIGHT + 18 }, words[i]),
    ];
  }));
}
