// The service's side of the page: what is asked, and what an answer or a failure says.

import { npyOf } from './frames.js';

const MOST_SECONDS = 15;

/** What went wrong, in words for the one who writes. */
async function failureOf(response) {
  const body = await response.json().catch(() => null);
  const message = body?.error?.message ?? response.statusText;
  const later = response.headers.get('Retry-After');
  return new Error(`The service answers ${response.status}: ${message}.` +
                   (later === null ? '' : ` Try again in ${later} s.`));
}

/**
 * Sends frames and gives the alternatives of the answer, best first, and the milliseconds it took.
 * Throws an Error in words for the reader; one named AbortError where `signal` ended it.
 */
export async function recognize(frames, signal) {
  const begin = performance.now();
  const limit = AbortSignal.timeout(MOST_SECONDS * 1000);
  const ended = new AbortController();
  for (const each of [signal, limit]) each.addEventListener('abort', () => ended.abort());
  try {
    const response = await fetch('/recognize?detail=1', {
      method: 'POST',
      headers: { 'Content-Type': 'application/octet-stream' },
      body: npyOf(frames),
      signal: ended.signal,
    });
    if (!response.ok) throw await failureOf(response);
    const { alternatives } = await response.json();
    return { alternatives, milliseconds: performance.now() - begin };
  } catch (error) {
    if (limit.aborted && !signal.aborted) throw new Error(`No answer within ${MOST_SECONDS} s.`);
    if (error instanceof TypeError) throw new Error('The service cannot be reached.');
    throw error;
  }
}

/** The words of a sequence's labels, one a label: their text, or their numbers without a label file. */
export function wordsOf({ labels, text }) {
  const letters = text === undefined ? [] : [...text];
  return letters.length === labels.length ? letters : labels.map(String);
}
