// Makes elements. Text is only ever inserted as text, so what the device sends can't become markup.

/**
 * @typedef {string | number | boolean | null | undefined | EventListener} Property
 * @typedef {Node | string | null | undefined} Child
 */

// Control characters and those that reorder the text around them; tabs and line ends are text.
const INVISIBLE = /[\0-\x08\x0b\x0c\x0e-\x1f\x7f\u200e\u200f\u202a-\u202e\u2066-\u2069]/g;

/**
 * A text of the device as it can be seen: "a\x1bb" -> "a␛b", a right-to-left override -> "⟨202e⟩".
 * @param {string} text
 */
export function visible(text) {
  return text.replace(INVISIBLE, (character) => {
    const code = character.charCodeAt(0);
    return code < 0x20 ? String.fromCharCode(0x2400 + code) : code === 0x7f ? '\u2421' : `⟨${code.toString(16)}⟩`;
  });
}

/**
 * An element with attributes and children. A property "onclick" and the like takes a listener;
 * true stands for an empty attribute; false, null and undefined leave it out.
 * @template {keyof HTMLElementTagNameMap} Tag
 * @param {Tag} tag
 * @param {Record<string, Property>} [properties]
 * @param {...Child} children
 * @returns {HTMLElementTagNameMap[Tag]}
 */
export function el(tag, properties = {}, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(properties)) {
    if (typeof value === 'function') {
      element.addEventListener(name.slice(2), value);
    } else if (value !== false && value !== null && value !== undefined) {
      element.setAttribute(name, value === true ? '' : String(value));
    }
  }
  for (const child of children) {
    if (child !== null && child !== undefined) {
      element.append(typeof child === 'string' ? visible(child) : child);
    }
  }
  return element;
}

/**
 * The element of the page's own markup with this id.
 * @param {string} id
 * @returns {HTMLElement}
 */
export function byId(id) {
  const element = document.getElementById(id);
  if (!element) {
    throw new Error(`the page has no element "${id}"`);
  }
  return element;
}

/**
 * Changes an element's text only where it differs, so that a live region speaks once.
 * @param {Node} node
 * @param {string} text
 */
export function setText(node, text) {
  const shown = visible(text);
  if (node.textContent !== shown) {
    node.textContent = shown;
  }
}

/**
 * A list of names and values of which the empty ones are left out.
 */
export function createFacts() {
  const element = el('dl', { class: 'facts' });
  return {
    element,
    /** @param {[string, string][]} facts */
    show(facts) {
      const texts = facts.filter(([, value]) => value !== '').flat();
      while (element.children.length > texts.length) {
        element.lastElementChild?.remove();
      }
      for (const [index, text] of texts.entries()) {
        const part = element.children[index]
          ?? element.appendChild(el(index % 2 === 0 ? 'dt' : 'dd'));
        setText(part, text);
      }
    },
  };
}
