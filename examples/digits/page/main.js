// What the page does: a drawing becomes frames, the service reads them, and the answer is shown.

import { Pad } from './pad.js';
import { prepare } from './frames.js';
import { drawBrackets, drawFrames } from './picture.js';
import { recognize, wordsOf } from './service.js';

const PAUSE = 300;  // milliseconds after a stroke in which another one may begin

const at = (id) => document.getElementById(id);
const percent = (share) => share === null ? '–' : `${(share * 100).toFixed(1)} %`;

let frames = prepare([]);  // of the drawing as it stands
let answer = null;         // to these frames, or null
let asked = new AbortController();
let pause = 0;

/** What is on its way is not to the drawing any more. */
function dropAnswers() {
  clearTimeout(pause);
  asked.abort();
}

function showBrackets() {
  const best = answer?.alternatives[0];
  drawBrackets(at('brackets'), best === undefined ? { spans: [] }
    : { spans: best.spans, words: wordsOf(best), places: frames.places, scale: pad.scale });
}

function showAnswer() {
  showBrackets();
  at('sequences').replaceChildren(...(answer?.alternatives ?? []).map((each) => {
    const row = document.createElement('li');
    const [text, sure, bar] = ['b', 'span', 'meter'].map((name) => document.createElement(name));
    text.textContent = wordsOf(each).join('') || '(nothing)';
    sure.textContent = percent(each.confidence);
    bar.value = each.confidence ?? 0;
    bar.setAttribute('aria-hidden', 'true');
    row.append(text, ' ', sure, bar);
    return row;
  }));
}

function showFrames() {
  drawFrames(at('frames'), frames);
  at('frames-said').textContent = frames.count === 0 ? 'What is sent: nothing yet.'
    : `What is sent: ${frames.count} frames of 8 values.`;
}

/** The state in words, and whether it is bad news. */
function say(text, isFailure = false) {
  at('status').textContent = text;
  at('status').classList.toggle('failure', isFailure);
}

async function read() {
  dropAnswers();
  if (frames.count === 0) return;
  asked = new AbortController();
  const { signal } = asked;
  try {
    const given = await recognize(frames, signal);
    if (signal.aborted) return;
    answer = given;
    const [best] = answer.alternatives;
    say(`Read ${best === undefined ? 'nothing' : wordsOf(best).join('') || 'nothing'}, ` +
        `confidence ${percent(best?.confidence ?? null)}, in ${answer.milliseconds.toFixed(1)} ms.`);
  } catch (error) {
    if (signal.aborted) return;
    answer = null;
    say(error.message, true);
  }
  showAnswer();
}

function drawingChanged() {
  dropAnswers();
  answer = null;
  frames = prepare(pad.strokes);
  showFrames();
  showAnswer();
  if (frames.count === 0) say('Nothing drawn yet.');
  else pause = setTimeout(read, PAUSE);
}

const pad = new Pad(at('pad'), {
  begun: dropAnswers,
  changed: drawingChanged,
  resized: showBrackets,
  penSeen: () => { at('fingers-choice').hidden = false; },
});

/** Buttons with lines that were drawn before, for those who cannot or do not want to draw. */
async function offerSamples() {
  const { samples } = await (await fetch('samples.json')).json();
  at('samples').append(...samples.map(({ text, strokes }) => {
    const button = document.createElement('button');
    button.type = 'button';
    button.textContent = text;
    button.addEventListener('click', () => pad.show(strokes));
    return button;
  }));
}

at('undo').addEventListener('click', () => pad.undo());
at('clear').addEventListener('click', () => pad.clear());
at('read').addEventListener('click', read);
at('fingers').addEventListener('change', (event) => { pad.fingersDraw = event.target.checked; });
addEventListener('keydown', (event) => {
  if ((event.ctrlKey || event.metaKey) && !event.shiftKey && event.key.toLowerCase() === 'z') {
    event.preventDefault();
    pad.undo();
  }
});
matchMedia('(prefers-color-scheme: dark)').addEventListener('change', showFrames);
drawingChanged();
offerSamples().catch(() => say('The samples cannot be loaded.', true));
