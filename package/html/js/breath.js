// Lets the page go on while something long is computed.

const SLICE_MS = 10;

/** To be called again and again; throws once it is aborted. @param {AbortSignal} [signal] */
export function createBreath(signal) {
  let since = performance.now();
  return async () => {
    signal?.throwIfAborted();
    if (performance.now() - since > SLICE_MS) {
      await new Promise((resolve) => { setTimeout(resolve, 0); });
      since = performance.now();
    }
  };
}
