import { describe, expect, it } from 'vitest';

import { linkTo, routeOf } from '../../src/page/Route';

describe('Route', () => {
  it('leads to any television', () => {
    for (const id of ['tv', 'tv 1', 'a&b=c', '한국', '50%', '__proto__', '?']) {
      expect(routeOf(linkTo(id))).toEqual({ view: 'television', id });
    }
  });

  it('leads to the fleet when it leads nowhere else', () => {
    for (const fragment of ['', '#', '#/', '#/nowhere', '#/things/', '#/things/%E0%A4%A']) {
      expect(routeOf(fragment).view).toBe('fleet');
    }
    expect(routeOf('#/requests').view).toBe('requests');
  });
});
