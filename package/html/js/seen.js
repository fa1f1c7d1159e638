// Does what an element needs once it comes into sight: nothing is read that is not shown.

/**
 * @param {Element} element
 * @param {() => void} act once
 * @returns {() => void} stops waiting
 */
export function whenSeen(element, act) {
  const observer = new IntersectionObserver((entries) => {
    if (entries.some(({ isIntersecting }) => isIntersecting)) {
      observer.disconnect();
      act();
    }
  }, { rootMargin: '200px' });
  observer.observe(element);
  return () => observer.disconnect();
}
