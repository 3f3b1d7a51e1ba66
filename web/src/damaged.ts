// The notice about settings that cannot be read, at the top of each page that shows them.
import { later } from './later'

export const Damaged = later(() => import('./pages/damaged').then(page => page.DamagedNotice))
